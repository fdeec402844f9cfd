#include "host/ConfigurationFile.h"

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/RegularFile.h"
#include "platform/foundation/Text.h"

namespace tandor::host {
namespace {

using nlohmann::json;

/// How far the parser has come: it reads at most one character more than it needs.
struct Position {
  std::size_t line = 1;
  bool isBehindLineFeed = false;

  [[nodiscard]] std::size_t lineOfToken() const noexcept {
    return isBehindLineFeed ? line - 1 : line;
  }
};

/// Walks over a text and tells how far it is, which the parser itself keeps for its own errors.
class CountingIterator {
 public:
  using iterator_category =
      std::input_iterator_tag;             // NOLINT(*-identifier-naming): as std names it
  using value_type = char;                 // NOLINT(*-identifier-naming)
  using difference_type = std::ptrdiff_t;  // NOLINT(*-identifier-naming)
  using pointer = const char*;             // NOLINT(*-identifier-naming)
  using reference = const char&;           // NOLINT(*-identifier-naming)

  CountingIterator(const char* character, Position& position) noexcept
      : character_(character), position_(&position) {}
  reference operator*() const noexcept { return *character_; }
  CountingIterator& operator++() noexcept {
    position_->isBehindLineFeed = *character_++ == '\n';
    if (position_->isBehindLineFeed) ++position_->line;
    return *this;
  }
  CountingIterator operator++(int) noexcept {
    CountingIterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const CountingIterator& left, const CountingIterator& right) noexcept {
    return left.character_ == right.character_;
  }

 private:
  const char* character_;
  Position* position_;
};

/// Takes the values as the parser meets them, while the line is known.
class FileReader : public nlohmann::json_sax<json> {
 public:
  FileReader(const std::string& path, const Position& position)
      : path_(path), position_(position) {}

  [[nodiscard]] Settings& settings() noexcept { return settings_; }
  [[nodiscard]] const std::string& error() const noexcept { return error_; }

  bool null() override { return wrongType(); }
  bool number_integer(number_integer_t /*value*/) override { return wrongType(); }
  bool number_unsigned(number_unsigned_t /*value*/) override { return wrongType(); }
  bool number_float(number_float_t /*value*/, const string_t& /*text*/) override {
    return wrongType();
  }
  bool binary(binary_t& /*value*/) override { return wrongType(); }
  bool boolean(bool value) override {
    if (depth_ == 0 || isInList_) return wrongType();
    if (key_ == "debug") return set(settings_.debug, value);
    if (key_ == "enable") return set(settings_.enable, value);
    return wrongType();
  }
  bool string(string_t& value) override {
    if (depth_ == 0) return wrongType();
    if (isInList_) {
      settings_.apps->push_back({value, fmt::format("{}:{}", path_, position_.lineOfToken())});
      return true;
    }
    if (key_ == "log") return set(settings_.log, std::move(value));
    if (key_ == "mode")
      return choose(settings_.mode, modeNamed(value),
                    R"("webProxy", "directlyWhiteList" or "tunnelWhiteList")");
    if (key_ == "connectReply")
      return choose(settings_.connectReply, connectReplyNamed(value), R"("status" or "phrase")");
    if (key_ != "proxy") return wrongType();
    auto proxy = Proxy::parse(value);
    if (!proxy) return fail(fmt::format("must be \"HOST:PORT\"; {}", proxy.error()));
    return set(settings_.proxy, std::move(*proxy));
  }
  bool start_object(std::size_t /*elements*/) override { return depth_++ == 0 || wrongType(); }
  bool end_object() override { return true; }
  bool start_array(std::size_t /*elements*/) override {
    if (depth_ == 0 || isInList_ || key_ != "apps") return wrongType();
    isInList_ = true;
    settings_.apps.emplace();
    return true;
  }
  bool end_array() override {
    isInList_ = false;
    return true;
  }
  bool key(string_t& name) override {
    static const std::set<std::string_view> known = {"mode",  "apps",   "proxy",       "log",
                                                     "debug", "enable", "connectReply"};
    key_ = name;
    if (!known.contains(name)) {
      return fail(
          "is unknown; the keys are mode, apps, proxy, log, debug, enable and connectReply");
    }
    return keys_.insert(name).second || fail("is there twice");
  }
  bool parse_error(std::size_t /*offset*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& error) override {
    // "[...] parse error at line 1, column 2: syntax error while parsing value - WHY"
    std::string_view why(error.what());
    if (const std::size_t dash = why.find(" - "); dash != std::string_view::npos)
      why.remove_prefix(dash + 3);
    error_ = fmt::format("{}:{}: {}{}no valid JSON: {}", path_, position_.lineOfToken(),
                         key_.empty() ? "" : tandor::quoted(key_),
                         key_.empty() ? "" : " or behind it: ", why);
    return false;
  }

 private:
  template <typename Value>
  static bool set(std::optional<Value>& setting, Value value) {
    setting = std::move(value);
    return true;
  }
  template <typename Value>
  bool choose(std::optional<Value>& setting, std::optional<Value> value, std::string_view choices) {
    if (!value) return fail(fmt::format("must be {}", choices));
    setting = std::move(value);
    return true;
  }
  bool wrongType() {
    if (depth_ == 0 || key_.empty()) {
      error_ = fmt::format("{}:{}: the file must hold one object, in braces", path_,
                           position_.lineOfToken());
      return false;
    }
    if (key_ == "apps") return fail("must be a list of texts");
    return fail(key_ == "debug" || key_ == "enable" ? "must be true or false" : "must be a text");
  }
  bool fail(std::string_view what) {
    error_ = fmt::format("{}:{}: \"{}\" {}", path_, position_.lineOfToken(), key_, what);
    return false;
  }

  const std::string& path_;
  const Position& position_;
  Settings settings_;
  std::string error_;
  std::string key_;
  std::set<std::string> keys_;
  int depth_ = 0;
  bool isInList_ = false;
};

}  // namespace

std::expected<Settings, Failure> parseConfigurationFile(std::string_view text,
                                                        const std::string& path) {
  Position position;
  FileReader reader(path, position);
  const char* const begin = text.data();
  const bool isRead = json::sax_parse(CountingIterator(begin, position),
                                      CountingIterator(begin + text.size(), position), &reader,
                                      json::input_format_t::json, /*strict=*/true,
                                      /*ignore_comments=*/true);
  if (!isRead) {
    return wrongUsage(reader.error(), "correct the file; `man tandor.json` describes it");
  }
  Settings settings = std::move(reader.settings());
  if (settings.log && !settings.log->empty()) {
    std::error_code ignored;
    const auto folder = std::filesystem::absolute(path, ignored).parent_path();
    settings.log = (folder / *settings.log).lexically_normal().string();
  }
  return settings;
}

std::expected<Settings, Failure> readConfigurationFile(const std::string& path) {
  constexpr std::size_t longest = std::size_t{1} << 20;
  auto text = readRegularFile(path, longest + 1);
  if (text && text->size() > longest) text = std::unexpected("it is too long to be one");
  if (!text) {
    return wrongUsage(fmt::format("cannot read the configuration file {}: {}", path, text.error()),
                      "name a file that is there with --config FILE");
  }
  return parseConfigurationFile(*text, path);
}

}  // namespace tandor::host
