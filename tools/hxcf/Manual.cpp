// The manual pages and the completion, made of the options as they are.

#include <sstream>

#include "Commands.h"

namespace Hxcf {
namespace {

std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\') escaped += '\\';
    if (c == '-') escaped += '\\';
    if (c == '.' && (escaped.empty() || escaped.back() == '\n')) escaped += "\\&";
    escaped += c;
  }
  return escaped;
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<const CLI::Option*> OptionsOf(const CLI::App& app, bool positional) {
  return app.get_options([=](const CLI::Option* option) {
    return option->get_positional() == positional && !option->get_group().empty();
  });
}

void Begin(std::ostream& out, const std::string& name, const std::string& description) {
  out << ".TH \"" << name << "\" 1 \"\" \"hxcf " HXCF_VERSION "\" \"User Commands\"\n"
      << ".SH NAME\n"
      << Escape(name) << " \\- " << Escape(description) << "\n.SH SYNOPSIS\n";
}

void DescribeOptions(std::ostream& out, const CLI::App& app) {
  out << ".SH OPTIONS\n";
  for (const bool positional : {true, false})
    for (const CLI::Option* const option : OptionsOf(app, positional))
      out << ".TP\n\\fB" << Escape(option->get_name(positional, true)) << "\\fR"
          << (positional || option->get_expected_max() == 0 ? "" : " \\fIVALUE\\fR") << "\n"
          << Escape(option->get_description()) << "\n";
}

}  // namespace

std::string MakeManPage(const CLI::App& app, const std::string& command) {
  std::ostringstream out;
  if (command == "hxcf") {
    Begin(out, "hxcf", app.get_description());
    out << ".B hxcf\n.I COMMAND\n[\\fIOPTION\\fR]...\n.SH COMMANDS\n";
    for (const CLI::App* const each : CommandsOf(app))
      out << ".TP\n\\fB" << each->get_name() << "\\fR\n"
          << Escape(each->get_description()) << "; see \\fBhxcf\\-" << each->get_name()
          << "\\fR(1)\n";
    DescribeOptions(out, app);
    out << ".SH \"EXIT STATUS\"\n" << Escape(app.get_footer()) << "\n";
    return out.str();
  }
  const CLI::App* chosen = nullptr;
  for (const CLI::App* const each : CommandsOf(app))
    if (each->get_name() == command) chosen = each;
  if (chosen == nullptr) throw WrongCall("there is no command " + command);
  Begin(out, "hxcf-" + command, chosen->get_description());
  out << ".B hxcf " << command << "\n";
  for (const CLI::Option* const option : OptionsOf(*chosen, true))
    out << (option->get_required() ? "\\fI" : "[\\fI") << option->get_name(true)
        << (option->get_required() ? "\\fR\n" : "\\fR]\n");
  out << "[\\fIOPTION\\fR]...\n.SH DESCRIPTION\n" << Escape(chosen->get_description()) << ".\n";
  DescribeOptions(out, *chosen);
  out << ".SH \"SEE ALSO\"\n\\fBhxcf\\fR(1)\n";
  return out.str();
}

std::string MakeCompletion(const CLI::App& app) {
  std::ostringstream out;
  out << "_hxcf() {\n  local word=${COMP_WORDS[COMP_CWORD]} words\n  case ${COMP_WORDS[1]} in\n";
  std::string commands;
  for (const CLI::App* const command : CommandsOf(app)) {
    commands += (commands.empty() ? "" : " ") + command->get_name();
    out << "    " << command->get_name() << ") words='";
    for (const CLI::Option* const option : OptionsOf(*command, false))
      for (const std::string& name : option->get_lnames())
        out << " --" << name;
    out << " --json --quiet' ;;\n";
  }
  out << "    *) words='" << commands << " --help --version' ;;\n  esac\n"
      << "  if [ $COMP_CWORD -gt 1 ] && [[ $word != -* ]]; then\n    compopt -o default\n"
      << "    COMPREPLY=()\n  else\n    COMPREPLY=($(compgen -W \"$words\" -- \"$word\"))\n  "
         "fi\n}\n"
      << "complete -F _hxcf hxcf\n";
  return out.str();
}

}  // namespace Hxcf
