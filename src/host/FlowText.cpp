#include "host/FlowText.h"

#include <chrono>
#include <map>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/JSONValues.h"

namespace tandor::host {
namespace {

using nlohmann::json;
using Colour = Output::Colour;

std::string text(const json& flow, std::string_view key) {
  return textMember(flow, key).value_or("");
}

std::string bytes(const json& flow, std::string_view key) {
  return byteCount(static_cast<std::uint64_t>(numberMember(flow, key).value_or(0)));
}

}  // namespace

bool isAboutLeftFlow(const json& event) {
  return textMember(event, "event") == "left";
}

std::string describeEvent(const json& event, const Output& output) {
  static const std::map<std::string, Colour, std::less<>> colours = {{"open", Colour::green},
                                                                     {"close", Colour::plain},
                                                                     {"left", Colour::dim},
                                                                     {"refused", Colour::yellow},
                                                                     {"gap", Colour::red}};
  const std::string kind = text(event, "event");
  const auto colour = colours.find(kind);
  std::string line = fmt::format(
      "{:%H:%M:%S} {} ",
      fmt::localtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())),
      output.paint(colour == colours.end() ? Colour::plain : colour->second,
                   fmt::format("{:<7}", printable(kind))));
  if (kind == "gap") {
    return line + fmt::format("{} events were lost: they came faster than they could be shown",
                              numberMember(event, "lost").value_or(0));
  }
  const json flow = event.value("flow", json::object());
  line += printable(fmt::format("{}[{}] {} {}", text(flow, "app"),
                                numberMember(flow, "pid").value_or(0), text(flow, "protocol"),
                                text(flow, "destination")));
  const std::string outbound = text(flow, "outbound");
  if (!outbound.empty() && outbound != text(flow, "destination"))
    line += printable(" via " + outbound);
  if (const std::string interface = text(flow, "interface"); !interface.empty())
    line += printable(" on " + interface);
  if (kind == "close")
    line += fmt::format(", {} in, {} out", bytes(flow, "bytesIn"), bytes(flow, "bytesOut"));
  return line;
}

Table flowTable(const json& flows) {
  Table table(
      {"APPLICATION", "PID", "PROTOCOL", "DESTINATION", "OUTBOUND", "INTERFACE", "IN", "OUT"});
  const auto orDash = [](const std::string& value) { return value.empty() ? "-" : value; };
  for (const json& flow : flows) {
    table.add({text(flow, "app"), std::to_string(numberMember(flow, "pid").value_or(0)),
               text(flow, "protocol"), text(flow, "destination"), orDash(text(flow, "outbound")),
               orDash(text(flow, "interface")), bytes(flow, "bytesIn"), bytes(flow, "bytesOut")});
  }
  return table;
}

}  // namespace tandor::host
