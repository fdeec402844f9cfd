#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tandor::host {

/// The few of `names` that somebody who wrote `wanted` most likely meant, best first.
[[nodiscard]] std::vector<std::string> suggestions(std::string_view wanted,
                                                   const std::set<std::string>& names);

}  // namespace tandor::host
