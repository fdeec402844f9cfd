#include "host/Suggestions.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <optional>
#include <utility>

namespace tandor::host {
namespace {

constexpr std::size_t mostSuggestions = 3;

bool isSameLetter(char left, char right) {
  return std::tolower(static_cast<unsigned char>(left)) ==
         std::tolower(static_cast<unsigned char>(right));
}

/// Letters to insert, delete, replace or swap with the next one to make one text the other.
std::size_t distance(std::string_view left, std::string_view right) {
  std::vector<std::size_t> twoBefore;
  std::vector<std::size_t> before;
  std::vector<std::size_t> row(right.size() + 1);
  for (std::size_t to = 0; to < row.size(); ++to) row[to] = to;
  for (std::size_t at = 1; at <= left.size(); ++at) {
    twoBefore = std::exchange(before, row);
    row[0] = at;
    for (std::size_t to = 1; to <= right.size(); ++to) {
      const bool isSame = isSameLetter(left[at - 1], right[to - 1]);
      row[to] = std::min({before[to] + 1, row[to - 1] + 1, before[to - 1] + (isSame ? 0 : 1)});
      const bool isSwapped = at > 1 && to > 1 && isSameLetter(left[at - 1], right[to - 2]) &&
                             isSameLetter(left[at - 2], right[to - 1]);
      if (isSwapped) row[to] = std::min(row[to], twoBefore[to - 2] + 1);
    }
  }
  return row.back();
}

/// How far `name` is from what was meant; absent for too far.
std::optional<std::size_t> strangeness(std::string_view wanted, std::string_view name) {
  constexpr std::size_t shortestPart = 4;
  const std::size_t tolerance = std::max<std::size_t>(1, wanted.size() / 4);
  const std::size_t difference =
      std::max(wanted.size(), name.size()) - std::min(wanted.size(), name.size());
  if (difference <= tolerance)
    if (const std::size_t letters = distance(wanted, name); letters <= tolerance) return letters;
  const bool isPart =
      wanted.size() >= shortestPart && !std::ranges::search(name, wanted, isSameLetter).empty();
  if (isPart) return tolerance + difference;
  return std::nullopt;
}

}  // namespace

std::vector<std::string> suggestions(std::string_view wanted, const std::set<std::string>& names) {
  std::vector<std::pair<std::size_t, std::string>> candidates;
  for (const std::string& name : names)
    if (const auto strange = strangeness(wanted, name)) candidates.emplace_back(*strange, name);
  std::ranges::sort(candidates);
  if (candidates.size() > mostSuggestions) candidates.resize(mostSuggestions);
  std::vector<std::string> best;
  std::ranges::transform(candidates, std::back_inserter(best),
                         &std::pair<std::size_t, std::string>::second);
  return best;
}

}  // namespace tandor::host
