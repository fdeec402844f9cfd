#include "host/Completions.h"

#include <algorithm>
#include <iterator>
#include <sstream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tandor::host {
namespace {

using Value = CompletableOption::Value;

CompletableOption describe(const CLI::Option& option) {
  CompletableOption described;
  for (const std::string& name : option.get_snames()) described.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) described.names.push_back("--" + name);
  described.description = option.get_description();
  if (option.get_items_expected_max() == 0) return described;
  // The parser writes the permitted values behind the type: TEXT:{one,two}.
  const std::string type = option.get_type_name();
  const std::size_t brace = type.find('{');
  if (brace != std::string::npos && type.ends_with('}')) {
    described.value = Value::choice;
    std::istringstream values(type.substr(brace + 1, type.size() - brace - 2));
    for (std::string value; std::getline(values, value, ',');) described.choices.push_back(value);
  } else if (type == "FILE" || type == "PATH") {
    described.value = Value::file;
  } else if (type == "APP") {
    described.value = Value::command;
  } else {
    described.value = Value::text;
  }
  return described;
}

/// Text between single quotes, as all three shells read it.
std::string inQuotes(std::string_view text) {
  std::string quotedText = "'";
  for (const char character : text) {
    if (character == '\'')
      quotedText += R"('\'')";
    else
      quotedText += character;
  }
  return quotedText + "'";
}

std::string wordList(const std::vector<std::string>& words) {
  return inQuotes(fmt::format("{}", fmt::join(words, " ")));
}

std::vector<std::string> optionNames(const CompletableCommand& command) {
  std::vector<std::string> names;
  for (const CompletableOption& option : command.options)
    names.insert(names.end(), option.names.begin(), option.names.end());
  return names;
}

std::vector<std::string> commandNames(const CompletableCommand& tree) {
  std::vector<std::string> names;
  std::ranges::transform(tree.commands, std::back_inserter(names), &CompletableCommand::name);
  return names;
}

std::string bashAction(const CompletableOption& option) {
  switch (option.value) {
    case Value::choice:
      return fmt::format("COMPREPLY=($(compgen -W {} -- \"$current\"))", wordList(option.choices));
    case Value::file:
      return "compopt -o filenames; COMPREPLY=($(compgen -f -- \"$current\"))";
    case Value::command:
      return "compopt -o filenames; COMPREPLY=($(compgen -c -f -- \"$current\"))";
    default:
      return "COMPREPLY=()";
  }
}

std::string bash(const CompletableCommand& tree) {
  fmt::memory_buffer script;
  const auto out = std::back_inserter(script);
  fmt::format_to(out, "# bash completion for {0}\n_{0}() {{\n", tree.name);
  fmt::format_to(
      out,
      "  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}}"
      " command= word\n"
      "  for word in \"${{COMP_WORDS[@]:1:COMP_CWORD-1}}\"; do\n"
      "    case $word in\n"
      "      {}) command=$word; break ;;\n"
      "    esac\n"
      "  done\n"
      "  case $command$previous in\n",
      fmt::join(commandNames(tree), " | "));
  const auto addValues = [&](const CompletableCommand& command, std::string_view name) {
    for (const CompletableOption& option : command.options) {
      if (option.value == Value::none || option.names.empty()) continue;
      for (const std::string& optionName : option.names)
        fmt::format_to(out, "    {}{}) {}; return ;;\n", name, optionName, bashAction(option));
    }
  };
  addValues(tree, "");
  for (const CompletableCommand& command : tree.commands) addValues(command, command.name);
  fmt::format_to(out, "  esac\n  case $command in\n");
  for (const CompletableCommand& command : tree.commands)
    fmt::format_to(out, "    {}) COMPREPLY=($(compgen -W {} -- \"$current\")) ;;\n", command.name,
                   wordList(optionNames(command)));
  fmt::format_to(out, "    *) COMPREPLY=($(compgen -W {} -- \"$current\")) ;;\n  esac\n}}\n",
                 inQuotes(fmt::format("{} {}", fmt::join(commandNames(tree), " "),
                                      fmt::join(optionNames(tree), " "))));
  fmt::format_to(out, "complete -F _{0} {0}\n", tree.name);
  return fmt::to_string(script);
}

std::string zshSpecification(const CompletableOption& option, const std::string& name) {
  std::string description;
  for (const char character : option.description) {
    if (std::string_view("[]:\\").contains(character)) description += '\\';
    description += character;
  }
  std::string text = fmt::format("{}[{}]", name, description);
  switch (option.value) {
    case Value::none:
      break;
    case Value::choice:
      text += fmt::format(":value:({})", fmt::join(option.choices, " "));
      break;
    case Value::file:
      text += ":file:_files";
      break;
    case Value::command:
      text += ":application:{ _command_names -e; _files }";
      break;
    case Value::text:
      text += ":value: ";
      break;
  }
  return inQuotes("*" + text);
}

std::string zsh(const CompletableCommand& tree) {
  fmt::memory_buffer script;
  const auto out = std::back_inserter(script);
  const auto addArguments = [&](const CompletableCommand& command, std::string_view indent) {
    for (const CompletableOption& option : command.options)
      for (const std::string& name : option.names)
        fmt::format_to(out, " \\\n{}{}", indent, zshSpecification(option, name));
  };
  fmt::format_to(out,
                 "#compdef {0}\n_{0}() {{\n  local curcontext=$curcontext state line\n"
                 "  typeset -A opt_args\n  _arguments -C",
                 tree.name);
  addArguments(tree, "    ");
  fmt::format_to(out,
                 " \\\n    '1:command:->command' \\\n    '*::argument:->arguments'\n"
                 "  case $state in\n    command)\n      local -a commands=(\n");
  for (const CompletableCommand& command : tree.commands)
    fmt::format_to(out, "        {}\n", inQuotes(command.name + ":" + command.description));
  fmt::format_to(out,
                 "      )\n      _describe command commands\n      ;;\n"
                 "    arguments)\n      case $line[1] in\n");
  for (const CompletableCommand& command : tree.commands) {
    fmt::format_to(out, "        {})\n          _arguments", command.name);
    addArguments(command, "            ");
    fmt::format_to(out, "\n          ;;\n");
  }
  fmt::format_to(out,
                 "      esac\n      ;;\n  esac\n}}\n"
                 "if [ \"$funcstack[1]\" = _{0} ]; then\n  _{0} \"$@\"\nelse\n"
                 "  compdef _{0} {0}\nfi\n",
                 tree.name);
  return fmt::to_string(script);
}

std::string fish(const CompletableCommand& tree) {
  fmt::memory_buffer script;
  const auto out = std::back_inserter(script);
  fmt::format_to(out, "# fish completion for {0}\ncomplete -c {0} -f\n", tree.name);
  const auto addOptions = [&](const CompletableCommand& command, const std::string& condition) {
    for (const CompletableOption& option : command.options) {
      if (option.names.empty()) continue;
      fmt::format_to(out, "complete -c {} -n {}", tree.name, inQuotes(condition));
      for (const std::string& name : option.names) {
        const bool isLong = name.starts_with("--");
        fmt::format_to(out, " {} {}", isLong ? "-l" : "-s", name.substr(isLong ? 2 : 1));
      }
      if (option.value == Value::choice) fmt::format_to(out, " -x -a {}", wordList(option.choices));
      if (option.value == Value::file) fmt::format_to(out, " -r -F");
      if (option.value == Value::command)
        fmt::format_to(out, " -r -F -a '(__fish_complete_command)'");
      if (option.value == Value::text) fmt::format_to(out, " -x");
      fmt::format_to(out, " -d {}\n", inQuotes(option.description));
    }
  };
  addOptions(tree, "__fish_use_subcommand");
  for (const CompletableCommand& command : tree.commands) {
    fmt::format_to(out, "complete -c {} -n '__fish_use_subcommand' -a {} -d {}\n", tree.name,
                   command.name, inQuotes(command.description));
    addOptions(command, "__fish_seen_subcommand_from " + command.name);
  }
  return fmt::to_string(script);
}

}  // namespace

CompletableCommand commandTree(const CLI::App& app) {
  CompletableCommand tree{app.get_name(), app.get_description(), {}, {}};
  for (const CLI::Option* option : app.get_options()) tree.options.push_back(describe(*option));
  for (const CLI::App* below : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (below->get_group().empty()) continue;
    CompletableCommand command = commandTree(*below);
    for (const CompletableOption& option : tree.options) {
      const bool isKnown = std::ranges::any_of(
          command.options, [&](const auto& other) { return other.names == option.names; });
      if (!isKnown) command.options.push_back(option);
    }
    tree.commands.push_back(std::move(command));
  }
  return tree;
}

std::string printCompletions(const CompletableCommand& tree, const std::string& shell) {
  if (shell == "bash") return bash(tree);
  if (shell == "zsh") return zsh(tree);
  if (shell == "fish") return fish(tree);
  return {};
}

}  // namespace tandor::host
