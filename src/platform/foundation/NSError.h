#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tandor {

/// The platform's error object: the domain that numbers the error, its code there, and its printed
/// form. A small immutable value; copies share their text. No error is std::nullopt.
class NSError {
 public:
  NSError(std::string_view domain, std::int64_t code, std::string_view description)
      : fields_(
            std::make_shared<const Fields>(std::string(domain), code, std::string(description))) {}

  /// The error of a failed system call, in posixDomain.
  [[nodiscard]] static NSError posix(int errorNumber);

  [[nodiscard]] const std::string& domain() const noexcept { return fields_->domain; }
  [[nodiscard]] std::int64_t code() const noexcept { return fields_->code; }
  [[nodiscard]] const std::string& description() const noexcept { return fields_->description; }

  static constexpr std::string_view posixDomain = "NSPOSIXErrorDomain";

  friend bool operator==(const NSError& left, const NSError& right) noexcept {
    return left.code() == right.code() && left.domain() == right.domain();
  }

 private:
  struct Fields {
    Fields(std::string domainName, std::int64_t number, std::string text)
        : domain(std::move(domainName)), code(number), description(std::move(text)) {}
    std::string domain;
    std::int64_t code;
    std::string description;
  };
  std::shared_ptr<const Fields> fields_;
};

}  // namespace tandor
