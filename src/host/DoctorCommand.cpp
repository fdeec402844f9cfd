#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/Commands.h"
#include "host/Doctor.h"
#include "host/Provider.h"
#include "host/ProviderProcess.h"

namespace tandor::host {

using nlohmann::json;

namespace {

using Result = Finding::Result;
using Colour = Output::Colour;

Finding checkProgram() {
  if (const auto program = findProviderProgram())
    return {"provider program", Result::good, *program, ""};
  return {"provider program", Result::failure, "tandor-provider is not installed",
          "install the package whole, or put tandor-provider beside this program"};
}

/// The provider on the control socket, if one answers.
Finding checkControl(EventLoop& loop, const Options& options, bool& isRunning) {
  const auto chosen = Provider::choose(loop, options.control);
  if (!chosen)
    return {"control socket", Result::failure, chosen.error().message, chosen.error().advice};
  if (!*chosen) {
    const std::string path = options.control.value_or(defaultControlPath());
    return {"control socket", options.control ? Result::failure : Result::good,
            fmt::format("no provider listens on {} now", path), "`sudo tandor run` starts one"};
  }
  const std::optional<Provider>& provider = *chosen;
  if (auto same = provider->checkVersion(); !same)
    return {"control socket", Result::failure, same.error().message, same.error().advice};
  isRunning = provider->status.isActive();
  return {"control socket", Result::good,
          fmt::format("{} answers, {}", provider->controlPath, provider->status.state), ""};
}

void print(const std::vector<Finding>& findings, Output& output) {
  static constexpr Colour colours[] = {Colour::green, Colour::yellow, Colour::yellow, Colour::red};
  std::size_t width = 0;
  for (const Finding& finding : findings) width = std::max(width, finding.check.size());
  for (const Finding& finding : findings) {
    const auto index = static_cast<std::size_t>(finding.result);
    output.line(fmt::format("{} {:<{}}  {}",
                            output.paint(colours[index], fmt::format("{:<7}", resultNames[index])),
                            printable(finding.check), width, printable(finding.text)));
    if (!finding.advice.empty())
      output.line(fmt::format("{:8}{:<{}}  {}", "", "", width, printable("-> " + finding.advice)));
  }
}

}  // namespace

Outcome doctorCommand(const Options& options, Output& output) {
  const Machine machine = Machine::thisOne();
  EventLoop loop;
  bool isRunning = false;
  const Finding control = checkControl(loop, options, isRunning);
  std::vector<Finding> findings = {checkPrivileges(machine), checkProgram(),
                                   checkPacketFilterTool(machine)};
  for (Finding& finding : checkKernelFeatures(machine)) findings.push_back(std::move(finding));
  findings.push_back(checkQueue(machine, isRunning));
  findings.push_back(control);
  for (const auto check :
       {checkDefaultRoute, checkDirectInterface, checkReversePathFilter, checkMarks})
    findings.push_back(check(machine));

  const auto failed = std::ranges::count(findings, Result::failure, &Finding::result);
  json checks = json::array();
  for (const Finding& finding : findings)
    checks.push_back({{"check", finding.check},
                      {"result", resultNames[static_cast<std::size_t>(finding.result)]},
                      {"text", finding.text},
                      {"advice", finding.advice}});
  output.value({{"ok", failed == 0}, {"checks", std::move(checks)}});
  print(findings, output);
  output.line(failed == 0 ? "interception can work here"
                          : fmt::format("{} of {} checks failed", failed, findings.size()));
  return failed == 0 ? exitDone : exitFailed;
}

}  // namespace tandor::host
