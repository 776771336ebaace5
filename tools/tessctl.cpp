// tessctl: reads and changes tessard parameters from the shell.
//
// Results go to standard output, a single value alone on its line (or JSON with --json), and only
// when the command succeeded (a name-value list also shows the entries the daemon did send with a
// failure). A failure is one line on standard error, "tessctl: SUBJECT: reason", and the exit
// status tells the reason apart: a refused request exits with the daemon's status byte itself, the
// other failures with the sysexits.h numbers (table in kExitStatusHelp).
#include <strings.h>
#include <sysexits.h>
#include <tessard/tessclient.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tessctl_explain.h"
#include "tools/tessctl_json.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = EX_USAGE;              // the command line is wrong; nothing was sent
constexpr int kExitUnavailable = EX_UNAVAILABLE;  // no connection to the daemon, or it was lost
constexpr int kExitProtocol = EX_PROTOCOL;        // a reply that no request of ours can get
constexpr int kDefaultSync = 10;
constexpr int kMaxIndex = 0xFFFF;

constexpr char kOptionsHelp[] =
    "Options (every command takes them):\n"
    "  --socket PATH       the daemon's socket; else $TESSARD_SOCKET, else\n"
    "                      /run/tessard/tessardsocket\n"
    "  --json              print the result as JSON\n"
    "  --quiet             print no message for a failure (the exit status still tells), and ask\n"
    "                      the daemon not to log a refused request\n"
    "  --case-sensitive    compare names with case (honoured by a daemon started -casesensitive)\n"
    "  --help              print this help and exit\n"
    "  --sync MODE         (set, create, delete) the sync byte, 0 to 255; 10 and above write the\n"
    "                      files at once (default 10)\n"
    "  --number N          (create) the group number, 0 to 65534 (default: the first free one)\n";

// Kept in step with the README.
constexpr char kExitStatusHelp[] =
    "Exit status (1 to 18 are the daemon's reply status):\n"
    "   0  success\n"
    "   1  the request failed: no such parameter (set, option), value refused or without a\n"
    "      text form, file not read, synchronisation failed, group not created or deleted\n"
    "   2  the daemon ran out of memory or the reply was too long, or a value of the wrong type\n"
    "   3  access refused\n"
    "   4  malformed request: a path or name that the daemon does not accept\n"
    "   5  the parameter is read-only\n"
    "   6  the group limit is reached\n"
    "  16  no such parameter, no parameter at that index, or the group already exists\n"
    "  17  no subgroup at that index\n"
    "  18  no such group\n"
    "  64  usage error; nothing was sent to the daemon\n"
    "  69  the daemon cannot be reached, or the connection was lost\n"
    "  76  the daemon's reply makes no sense (malformed, or an unknown status)\n";

struct Options {
  const char* socket = nullptr;
  bool json = false;
  bool quiet = false;
  bool case_sensitive = false;
  bool help = false;
  std::optional<int> sync;
  std::optional<int> number;
  std::vector<std::string> words;  // the command and its arguments
};

using Args = std::vector<std::string>;

int usage_error(const std::string& message) {
  fprintf(stderr, "tessctl: %s\nTry 'tessctl --help'.\n", message.c_str());
  return kExitUsage;
}

bool is_reply_status(int result) {
  return (result >= TESSCLIENT_FAILED && result <= TESSCLIENT_GROUP_LIMIT) ||
         (result >= TESSCLIENT_NO_PARAM && result <= TESSCLIENT_NO_GROUP);
}

int exit_status(int result) {
  if (is_reply_status(result)) return result;
  // The client library refuses these before sending: an argument the protocol cannot carry.
  if (result == -EINVAL || result == -EMSGSIZE) return kExitUsage;
  if (result == -EPROTO || result >= 0) return kExitProtocol;
  return kExitUnavailable;
}

std::string status_message(int request, int result) {
  if (result >= 0 && !is_reply_status(result)) return "unknown status " + std::to_string(result);
  return tessclient_request_status_text(request, result);
}

std::optional<int> parse_number(std::string_view text, int low, int high) {
  int value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    return std::nullopt;
  }
  return value;
}

// Takes a malloc'd text from the client library.
std::string take(char* text) {
  std::string out = text ? text : "";
  free(text);
  return out;
}

// The full path the daemon makes of a path from a client.
std::string full_path(const std::string& path) {
  return path.size() > 3 && path.starts_with("root") ? path : "root." + path;
}

// A direct child of group: the group's path, a dot and one more name. Compared without regard to
// case, as the daemon compares names unless told otherwise.
bool is_child(const std::string& group, const std::string& path) {
  return path.size() > group.size() + 1 && path[group.size()] == '.' &&
         strncasecmp(path.c_str(), group.c_str(), group.size()) == 0 &&
         path.find('.', group.size() + 1) == std::string::npos;
}

struct Member {
  std::string path;
  std::string name;
  std::string type;
};

int fetch_member(TessClient* client, int request, const std::string& group, int index,
                 Member* member) {
  char *path = nullptr, *name = nullptr, *type = nullptr;
  int rc = request == TESSCLIENT_GETPARAMINFO
               ? tessclient_get_param_info(client, group.c_str(), index, &path, &name, &type)
               : tessclient_get_group_info(client, group.c_str(), index, &path, &name);
  member->path = take(path);
  member->name = take(name);
  member->type = take(type);
  return rc;
}

class Command {
 public:
  Command(TessClient* client, const Options& options) : client_(client), options_(options) {}

  // What the command printed; the caller writes it out.
  const std::string& output() const { return out_; }

  int get(const Args& args) {
    char* value = nullptr;
    int rc = tessclient_get(client_, args[0].c_str(), &value);
    if (rc != TESSCLIENT_OK) return report(full_path(args[0]), TESSCLIENT_GET, rc);
    print_value(full_path(args[0]), take(value));
    return kExitOk;
  }

  int set(const Args& args) {
    int rc = tessclient_set(client_, args[0].c_str(), args[1].c_str(), sync());
    return finish(full_path(args[0]), TESSCLIENT_SET, rc);
  }

  int sync_tree(const Args& args) {
    int mode = args.empty() ? 0 : *parse_number(args[0], 0, 0xFF);
    return finish("sync", TESSCLIENT_SNC, tessclient_sync(client_, mode));
  }

  int list(const Args& args) {
    TessClientNameValueList* list = nullptr;
    int rc = tessclient_get_name_value_list(client_, args[0].c_str(), 0, &list);
    if (list) print_list(*list);
    tessclient_free_name_value_list(list);
    return finish(full_path(args[0]), TESSCLIENT_GETNAMEVALUELIST, rc);
  }

  int info(const Args& args) {
    int index = *parse_number(args[1], 0, kMaxIndex);
    Member member;
    int rc = fetch_member(client_, TESSCLIENT_GETPARAMINFO, args[0], index, &member);
    if (rc != TESSCLIENT_OK) return report(full_path(args[0]), TESSCLIENT_GETPARAMINFO, rc);
    print_param(member, 0);
    return kExitOk;
  }

  int groups(const Args& args) {
    bool first = true;
    if (options_.json) out_ += "[";
    int exit = walk_members(TESSCLIENT_GETGROUPINFO, full_path(args[0]), [&](const Member& group) {
      print_group_entry(group, first);
      first = false;
      return kExitOk;
    });
    if (options_.json) out_ += "]\n";
    return exit;
  }

  int params(const Args& args) {
    return walk_members(TESSCLIENT_GETPARAMINFO, full_path(args[0]), [&](const Member& param) {
      out_ += param.path + "\n";
      return kExitOk;
    });
  }

  int explain(const Args& args) {
    std::string path = full_path(args[0]);
    ExplainResult result = tessctl_explain(client_, path, options_.json, &out_);
    return finish(path, result.request, result.status);
  }

  int tree(const Args& args) {
    int exit = tree_group(full_path(args.empty() ? "root" : args[0]), 0);
    if (options_.json) out_ += "\n";
    return exit;
  }

  int option(const Args& args) {
    char* value = nullptr;
    int rc = tessclient_get_param_option(client_, args[0].c_str(), args[1].c_str(), &value);
    if (rc != TESSCLIENT_OK) return report(full_path(args[0]), TESSCLIENT_GETPARAMOPTION, rc);
    print_value(full_path(args[0]), take(value));
    return kExitOk;
  }

  int read_file(const Args& args) {
    return finish(args[0], TESSCLIENT_READ_FILE, tessclient_read_file(client_, args[0].c_str()));
  }

  int create(const Args& args) {
    char* name = nullptr;
    int number = options_.number.value_or(TESSCLIENT_ANY_NUMBER);
    int rc =
        tessclient_create_group(client_, args[0].c_str(), args[1].c_str(), number, sync(), &name);
    if (rc != TESSCLIENT_OK) return report(full_path(args[0]), TESSCLIENT_CREATE_GROUP, rc);
    print_value(full_path(args[0]), take(name));
    return kExitOk;
  }

  int remove(const Args& args) {
    int rc = tessclient_delete_group(client_, args[0].c_str(), sync());
    return finish(full_path(args[0]), TESSCLIENT_DELETE_GROUP, rc);
  }

 private:
  int sync() const { return options_.sync.value_or(kDefaultSync); }

  // One line on standard error for a failed request; returns the exit status for it.
  int report(const std::string& subject, int request, int result) const {
    if (!options_.quiet) {
      fprintf(stderr, "tessctl: %s: %s\n", subject.c_str(),
              status_message(request, result).c_str());
    }
    return exit_status(result);
  }

  int finish(const std::string& subject, int request, int result) const {
    return result == TESSCLIENT_OK ? kExitOk : report(subject, request, result);
  }

  // Visits the parameters (GETPARAMINFO) or subgroups (GETGROUPINFO) of a group by index. Past
  // the last parameter the daemon answers with a parameter whose path is the group's own, when
  // there is one; the walk ends there as it does at the end status.
  template <class Visit>
  int walk_members(int request, const std::string& group, Visit visit) {
    int end = request == TESSCLIENT_GETPARAMINFO ? TESSCLIENT_NO_PARAM : TESSCLIENT_NO_SUBGROUP;
    for (int index = 0; index <= kMaxIndex; ++index) {
      Member member;
      int rc = fetch_member(client_, request, group, index, &member);
      if (rc == end) return kExitOk;
      if (rc != TESSCLIENT_OK) return report(group, request, rc);
      if (!is_child(group, member.path)) return kExitOk;
      if (int exit = visit(member); exit != kExitOk) return exit;
    }
    return kExitOk;
  }

  void print_value(const std::string& path, const std::string& value) {
    if (options_.json) {
      out_ += "{\"path\":" + json_string(path) + ",\"value\":" + json_string(value) + "}\n";
    } else {
      out_ += value + "\n";
    }
  }

  void print_list(const TessClientNameValueList& list) {
    if (options_.json) out_ += "{";
    for (size_t i = 0; i < list.count; ++i) {
      const TessClientNameValue& item = list.items[i];
      if (!options_.json) {
        out_ += std::string(item.path) + "=" + item.value + "\n";
        continue;
      }
      std::string value = item.has_value ? json_string(item.value) : "null";
      out_ += (i ? "," : "") + json_string(item.path) + ":" + value;
    }
    if (options_.json) out_ += "}\n";
  }

  void print_param(const Member& param, int depth) {
    if (options_.json) {
      out_ += "{\"path\":" + json_string(param.path) + ",\"name\":" + json_string(param.name) +
              ",\"type\":" + json_string(param.type) + "}" + (depth == 0 ? "\n" : "");
    } else if (depth == 0) {
      out_ += param.path + "\t" + param.name + "\t" + param.type + "\n";
    } else {
      out_ += std::string(2 * depth, ' ') + param.name + " (" + param.type + ")\n";
    }
  }

  void print_group_entry(const Member& group, bool first) {
    if (options_.json) {
      out_ += std::string(first ? "" : ",") + "{\"path\":" + json_string(group.path) +
              ",\"name\":" + json_string(group.name) + "}";
    } else {
      out_ += group.path + "\n";
    }
  }

  // Prints a group, its parameters and, recursively, its subgroups. Every subgroup's path is
  // longer than its parent's, so the recursion ends even if the daemon's answers were odd.
  int tree_group(const std::string& path, int depth) {
    if (options_.json) {
      out_ += "{\"path\":" + json_string(path) + ",\"params\":[";
    } else {
      out_ +=
          std::string(2 * depth, ' ') + (depth ? path.substr(path.rfind('.') + 1) : path) + "\n";
    }
    bool first = true;
    auto separate = [&] {
      if (options_.json && !first) out_ += ",";
      first = false;
    };
    int exit = walk_members(TESSCLIENT_GETPARAMINFO, path, [&](const Member& param) {
      separate();
      print_param(param, depth + 1);
      return kExitOk;
    });
    if (options_.json) out_ += "],\"groups\":[";
    first = true;
    if (exit == kExitOk) {
      exit = walk_members(TESSCLIENT_GETGROUPINFO, path, [&](const Member& group) {
        separate();
        return tree_group(group.path, depth + 1);
      });
    }
    if (options_.json) out_ += "]}";
    return exit;
  }

  TessClient* client_;
  const Options& options_;
  std::string out_;
};

using Handler = int (Command::*)(const Args&);

// A positional argument that must be a number from 0 to max, checked before connecting.
struct NumericArg {
  size_t position;
  int max;
  const char* what;
};

// What a command accepts besides its arguments, and how its output is shown.
enum CommandFlag : unsigned {
  kTakesSync = 1,
  kTakesNumber = 2,
  kPartialOutput = 4,  // what was printed before a failure is still shown
};

struct CommandSpec {
  const char* name;
  size_t min_args;
  size_t max_args;
  unsigned flags;
  std::optional<NumericArg> numeric;
  Handler handler;
  const char* arguments;  // as shown in the help
  const char* summary;
};

// clang-format off
const CommandSpec kCommands[] = {
    {"get", 1, 1, 0, {}, &Command::get, "PATH", "print the value of a parameter"},
    {"set", 2, 2, kTakesSync, {}, &Command::set, "PATH VALUE", "store a value"},
    {"sync", 0, 1, 0, NumericArg{0, 0xFF, "sync mode"}, &Command::sync_tree, "[MODE]",
     "write changed values to their files (mode 0 unless given)"},
    {"list", 1, 1, kPartialOutput, {}, &Command::list, "GROUP",
     "print path=value for each parameter of a group"},
    {"info", 2, 2, 0, NumericArg{1, kMaxIndex, "index"}, &Command::info, "GROUP INDEX",
     "print path, name and type of a group's parameter"},
    {"groups", 1, 1, 0, {}, &Command::groups, "GROUP",
     "print the paths of the subgroups of a group"},
    {"params", 1, 1, 0, {}, &Command::params, "GROUP",
     "print the paths of the parameters of a group"},
    {"tree", 0, 1, 0, {}, &Command::tree, "[GROUP]",
     "print the groups and parameters below GROUP (root)"},
    {"option", 2, 2, 0, {}, &Command::option, "PATH NAME", "print an option of a parameter"},
    {"explain", 1, 1, 0, {}, &Command::explain, "PATH",
     "show what decides how a parameter behaves, and your rights"},
    {"read-file", 1, 1, 0, {}, &Command::read_file, "FILE", "load a group file into the tree"},
    {"create", 2, 2, kTakesSync | kTakesNumber, {}, &Command::create, "PARENT TEMPLATE",
     "create a group from a template, print its name"},
    {"delete", 1, 1, kTakesSync, {}, &Command::remove, "GROUP", "delete a group"},
};
// clang-format on

const CommandSpec* find_command(std::string_view name) {
  for (const CommandSpec& spec : kCommands) {
    if (name == spec.name) return &spec;
  }
  return nullptr;
}

// The whole help, or with a known command only that command's usage.
std::string help_text(const CommandSpec* only) {
  auto synopsis = [](const CommandSpec& spec) {
    return std::string(spec.name) + " " + spec.arguments;
  };
  if (only) {
    return "Usage: tessctl [OPTIONS] " + synopsis(*only) + "\n  " + only->summary + "\n" +
           kOptionsHelp + kExitStatusHelp;
  }
  std::string text = "Usage: tessctl [OPTIONS] COMMAND [ARGUMENTS]\nCommands:\n";
  for (const CommandSpec& spec : kCommands) {
    char line[160];
    snprintf(line, sizeof line, "  %-30s %s\n", synopsis(spec).c_str(), spec.summary);
    text += line;
  }
  return text + kOptionsHelp + kExitStatusHelp;
}

// Reads the value of an option given as "--name VALUE" or "--name=VALUE".
const char* option_value(std::string_view arg, std::string_view name, int argc, char** argv,
                         int* i) {
  if (arg.size() > name.size() && arg[name.size()] == '=') return argv[*i] + name.size() + 1;
  if (*i + 1 >= argc) return nullptr;
  return argv[++*i];
}

// Parses an option that takes a value; returns an error text, empty when it was fine.
std::string parse_valued_option(std::string_view name, const char* value, Options* options) {
  if (!value) return "option " + std::string(name) + " needs a value";
  if (name == "--socket") {
    options->socket = value;
  } else if (name == "--sync") {
    options->sync = parse_number(value, 0, 0xFF);
    if (!options->sync) return "sync mode must be a number from 0 to 255";
  } else {
    options->number = parse_number(value, 0, 0xFFFE);
    if (!options->number) return "group number must be a number from 0 to 65534";
  }
  return "";
}

// Parses one option at argv[*i]; returns an error text, empty when it was fine.
std::string parse_option(int argc, char** argv, int* i, Options* options) {
  std::string_view arg = argv[*i];
  std::string_view name = arg.substr(0, arg.find('='));
  bool* flag = name == "--json"             ? &options->json
               : name == "--quiet"          ? &options->quiet
               : name == "--case-sensitive" ? &options->case_sensitive
               : name == "--help"           ? &options->help
                                            : nullptr;
  if (flag && name.size() == arg.size()) {
    *flag = true;
    return "";
  }
  if (flag) return "option " + std::string(name) + " takes no value";
  if (name != "--socket" && name != "--sync" && name != "--number") {
    return "unknown option " + std::string(arg);
  }
  return parse_valued_option(name, option_value(arg, name, argc, argv, i), options);
}

std::string parse_args(int argc, char** argv, Options* options) {
  bool options_end = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (options_end || !arg.starts_with("--")) {
      options->words.emplace_back(arg);
    } else if (arg == "--") {
      options_end = true;
    } else if (std::string error = parse_option(argc, argv, &i, options); !error.empty()) {
      return error;
    }
  }
  return "";
}

std::string check_command(const CommandSpec* spec, const Options& options) {
  if (!spec) return "unknown command " + options.words[0];
  size_t count = options.words.size() - 1;
  if (count < spec->min_args || count > spec->max_args) {
    return "wrong number of arguments for " + options.words[0];
  }
  if (options.sync && !(spec->flags & kTakesSync)) {
    return "--sync does not apply to " + options.words[0];
  }
  if (options.number && !(spec->flags & kTakesNumber)) {
    return "--number does not apply to " + options.words[0];
  }
  const std::optional<NumericArg>& numeric = spec->numeric;
  if (numeric && numeric->position < count &&
      !parse_number(options.words[numeric->position + 1], 0, numeric->max)) {
    return std::string(numeric->what) + " must be a number from 0 to " +
           std::to_string(numeric->max);
  }
  return "";
}

int run(const CommandSpec& spec, const Options& options) {
  TessClient* client = nullptr;
  if (int rc = tessclient_connect(options.socket, &client); rc < 0) {
    const char* socket = options.socket ? options.socket : getenv(TESSCLIENT_SOCKET_ENV);
    if (!socket || !*socket) socket = TESSCLIENT_DEFAULT_SOCKET;
    if (!options.quiet) {
      fprintf(stderr, "tessctl: cannot connect to %s: %s\n", socket, tessclient_status_text(rc));
    }
    return kExitUnavailable;
  }
  tessclient_set_quiet(client, options.quiet);
  tessclient_set_case_sensitive(client, options.case_sensitive);
  Command command(client, options);
  Args args(options.words.begin() + 1, options.words.end());
  int exit = (command.*spec.handler)(args);
  tessclient_close(client);
  if (exit == kExitOk || (spec.flags & kPartialOutput)) {
    fwrite(command.output().data(), 1, command.output().size(), stdout);
  }
  return exit;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (std::string error = parse_args(argc, argv, &options); !error.empty()) {
    return usage_error(error);
  }
  if (options.help) {
    std::string help = help_text(options.words.empty() ? nullptr : find_command(options.words[0]));
    fwrite(help.data(), 1, help.size(), stdout);
    return kExitOk;
  }
  if (options.words.empty()) return usage_error("no command given");
  const CommandSpec* spec = find_command(options.words[0]);
  if (std::string error = check_command(spec, options); !error.empty()) return usage_error(error);
  return run(*spec, options);
}
