#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <new>
#include <optional>

#include "cli/chart/Chart.h"
#include "cli/info/InfoCommand.h"
#include "cli/lens/LensImport.h"
#include "cli/render/RenderCommand.h"
#include "cli/shared/Command.h"
#include "cli/shared/Errors.h"
#include "cli/solve/Solve.h"
#include "cli/stmap/StMap.h"
#include "common/Version.h"

namespace veltrisca {

namespace {

constexpr const char* kExitCodes =
    "Exit codes: 0 success, 1 bad command line or option value, 2 input/output error\n"
    "(unreadable or unsupported image, unwritable output, not enough memory),\n"
    "3 the effect could not be loaded or returned an error.";

// The first word that is neither an option nor the value of --plugin: the command. CLI11 reports
// a mistyped command as a missing one ("A subcommand is required"), so the tool names it.
std::string UnknownCommand(const CLI::App& app, const std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--") return std::string();
    if (word == "--plugin") {
      ++i;
      continue;
    }
    if (word.empty() || word[0] == '-') continue;
    const auto named = [&word](const CLI::App* sub) { return sub->check_name(word); };
    return app.get_subcommands(named).empty() ? word : std::string();
  }
  return std::string();
}

// The option `name` ("--alpha", "-d") of `app` or, through fallthrough, of the tool.
const CLI::Option* FindOption(const CLI::App* app, const std::string& name) {
  for (; app; app = app->get_parent()) {
    if (const CLI::Option* option = app->get_option_no_throw(name)) return option;
  }
  return nullptr;
}

// Edits (insertions, deletions, substitutions, swaps of neighbours) from a to b.
size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                          d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

// The known long option nearest to a mistyped one ("--distorsion" -> "--distortion"): the only
// one it abbreviates, else the closest within a third of its letters (at least one edit); ""
// when none is that close.
std::string NearestOption(const CLI::App* app, const std::string& typed) {
  std::vector<std::string> names;
  for (; app; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& lname : option->get_lnames()) names.push_back("--" + lname);
    }
  }
  std::vector<std::string> abbreviated;
  for (const std::string& name : names) {
    if (typed.size() >= 5 && name.rfind(typed, 0) == 0) abbreviated.push_back(name);
  }
  if (abbreviated.size() == 1) return abbreviated.front();
  std::string best;
  size_t bestDistance = std::max<size_t>(1, (typed.size() - 2) / 3) + 1;
  for (const std::string& name : names) {
    const size_t distance = EditDistance(typed, name);
    if (distance < bestDistance) {
      best = name;
      bestDistance = distance;
    }
  }
  return best;
}

// A word that CLI11 would read as an option: '-' followed by a letter or by another '-'.
// Negative numbers ("-50", "-.5") and lists ("-40,-20,1960,1100") are values.
bool LooksLikeOption(const std::string& word) {
  return word.size() >= 2 && word[0] == '-' &&
         (word[1] == '-' || std::isalpha(static_cast<unsigned char>(word[1])));
}

// Reads the options of the command line as CLI11 will and returns the message of the first it
// refuses (empty when none): an unknown option, with the nearest known one; an option whose
// value is missing because the next word is an option (CLI11 would take "--threads=2" as the
// value of --alpha); "--option=" with nothing after '=' (CLI11 would take the next word).
std::string RefusedOptionWord(const CLI::App& app, const std::vector<std::string>& args) {
  const CLI::App* current = &app;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--") break;
    if (!LooksLikeOption(word)) {
      if (current == &app) {
        const auto named = [&word](const CLI::App* sub) { return sub->check_name(word); };
        const auto subs = app.get_subcommands(named);
        if (!subs.empty()) current = subs.front();
      }
      continue;
    }
    const bool isLong = word[1] == '-';
    const size_t equals = isLong ? word.find('=') : std::string::npos;
    const std::string name = isLong ? word.substr(0, equals) : word.substr(0, 2);
    const CLI::Option* option = FindOption(current, name);
    const std::string help = " (see veltrisca" +
                             (current == &app ? std::string() : " " + current->get_name()) +
                             " --help)";
    if (!option) {
      const std::string nearest = isLong ? NearestOption(current, name) : std::string();
      return "unknown option '" + MessageLine(isLong ? name : word) + "'" +
             (nearest.empty() ? help : "; did you mean '" + nearest + "'?");
    }
    if (option->get_items_expected_max() == 0) {
      // Short flags run together (-qv): each further letter is a flag, or an option whose
      // value is the rest of the word.
      for (size_t j = 2; !isLong && j < word.size(); ++j) {
        const CLI::Option* next = FindOption(current, std::string("-") + word[j]);
        if (!next) return "unknown option '-" + MessageLine(word.substr(j, 1)) + "' in '" +
                          MessageLine(word) + "'" + help;
        if (next->get_items_expected_max() > 0) break;
      }
      continue;
    }
    if (equals != std::string::npos || (!isLong && word.size() > 2)) {
      if (equals + 1 == word.size()) {
        return name + ": an empty value after '='; write " + name + "=VALUE or " + name +
               " VALUE";
      }
      continue;  // --option=value, -dVALUE
    }
    if (i + 1 < args.size() && LooksLikeOption(args[i + 1])) {
      return name + ": missing value: the next word '" + MessageLine(args[i + 1]) +
             "' reads as an option (write " + name + "=VALUE for a value that starts with '-')";
    }
    ++i;  // the option's value
  }
  return std::string();
}

std::string CommandNames(const CLI::App& app) {
  std::string names;
  for (const CLI::App* sub : app.get_subcommands(std::function<bool(const CLI::App*)>())) {
    names += (names.empty() ? "" : ", ") + sub->get_name();
  }
  return names;
}

}  // namespace

namespace {

int RunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  CLI::App app{"veltrisca " + VersionText() +
                   ": runs the Veltrisca Distortion effect outside its host.",
               "veltrisca"};
  app.set_version_flag("--version", VersionText(),
                       "Print the version (" + VersionText() + ") and exit");
  app.footer(kExitCodes);
  app.fallthrough();
  // An option given twice takes its last value, so scripts can override earlier settings.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.require_subcommand(1);
  std::string plugin;
  app.add_option("--plugin", plugin,
                 "the effect plug-in to load (default: $VELTRISCA_PLUGIN, else the built one)")
      ->type_name("PATH");

  // Each command's room registers its options and runner; a new command is one more line.
  const CommandEntry commands[] = {
      AddInfoCommand(app), AddRenderCommand(app), AddChartCommand(app),
      AddStMapCommand(app), AddLensCommand(app), solve::AddSolveCommand(app),
  };

  if (const std::string unknown = UnknownCommand(app, args); !unknown.empty()) {
    err << "veltrisca: unknown command '" << MessageLine(unknown) << "' (commands: "
        << CommandNames(app) << "; see veltrisca --help)\n";
    return kExitUsage;
  }
  if (const std::string refused = RefusedOptionWord(app, args); !refused.empty()) {
    err << "veltrisca: " << refused << "\n";
    return kExitUsage;
  }
  try {
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    err << "veltrisca: " << MessageLine(e.what()) << " (see veltrisca --help)\n";
    return kExitUsage;
  }

  const CommandContext context{plugin, out, err, std::chrono::steady_clock::now()};
  try {
    for (const CommandEntry& command : commands) {
      if (*command.app) return command.run(context);
    }
    return kExitUsage;  // CLI11 requires one command; not reached
  } catch (...) {
    const Failure failure = FailureOf(std::current_exception());
    err << "veltrisca: " << MessageLine(failure.message) << "\n";
    return failure.exitCode;
  }
}

}  // namespace

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const int code = RunCommandLine(args, out, err);
  // What a command printed counts only once it is written: a closed pipe or a full disk under
  // standard output fails the command. A failed stream keeps the errno of its failed write.
  if (!out.fail()) {
    errno = 0;
    out.flush();
  }
  if (!out.fail() || code != kExitOk) return code;
  err << "veltrisca: " << StdoutError(errno).what() << "\n";
  return kExitIo;
}

}  // namespace veltrisca
