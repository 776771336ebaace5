// tessctl: reads and changes tessard parameters from the shell.
//
// Results go to standard output, one value per line (or JSON with --json); every failure is one
// line on standard error. Exit status: 0 success, 1 a refused request or a lost connection,
// 2 a usage error.
#include <strings.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tessard/tessclient.h>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kDefaultSync = 10;
constexpr int kMaxIndex = 0xFFFF;

constexpr char kUsage[] =
    "Usage: tessctl [--socket PATH] [--json] [--quiet] [--case-sensitive] COMMAND ...\n"
    "Commands:\n"
    "  get PATH                         print the value of a parameter\n"
    "  set PATH VALUE [--sync MODE]     store a value (sync mode 10 unless given)\n"
    "  sync [MODE]                      write changed values to their files (mode 0)\n"
    "  list GROUP                       print path=value of each parameter of a group\n"
    "  info PATH INDEX                  print path, name and type of a group's parameter\n"
    "  groups PATH                      print the subgroups of a group\n"
    "  tree [PATH]                      print groups and parameters below PATH (root)\n"
    "  option PATH NAME                 print an option of a parameter\n"
    "  read-file PATH                   load a group file into the tree\n"
    "  create PARENT TEMPLATE [--number N] [--sync MODE]\n"
    "                                   create a group, print its name\n"
    "  delete GROUP [--sync MODE]       delete a group\n"
    "The socket is $TESSARD_SOCKET or /run/tessard/tessardsocket unless --socket is given.\n";

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

int report(std::string_view subject, int request, int result) {
  fprintf(stderr, "tessctl: %.*s: %s\n", static_cast<int>(subject.size()), subject.data(),
          tessclient_request_status_text(request, result));
  return kExitFailed;
}

std::optional<int> parse_number(std::string_view text, int low, int high) {
  int value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    return std::nullopt;
  }
  return value;
}

std::string json_string(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
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

// Visits the parameters (GETPARAMINFO) or subgroups (GETGROUPINFO) of a group by index. Past the
// last parameter the daemon answers with a parameter whose path is the group's own, when there
// is one; the walk ends there as it does at the end status.
template <class Visit>
int walk_members(TessClient* client, int request, const std::string& group, Visit visit) {
  int end = request == TESSCLIENT_GETPARAMINFO ? TESSCLIENT_NO_PARAM : TESSCLIENT_NO_SUBGROUP;
  for (int index = 0; index <= kMaxIndex; ++index) {
    Member member;
    int rc = fetch_member(client, request, group, index, &member);
    if (rc == end) return kExitOk;
    if (rc != TESSCLIENT_OK) return report(group, request, rc);
    if (!is_child(group, member.path)) return kExitOk;
    if (int exit = visit(member); exit != kExitOk) return exit;
  }
  return kExitOk;
}

class Command {
 public:
  Command(TessClient* client, const Options& options) : client_(client), options_(options) {}

  int get(const Args& args) {
    char* value = nullptr;
    int rc = tessclient_get(client_, args[0].c_str(), &value);
    if (rc != TESSCLIENT_OK) return report(args[0], TESSCLIENT_GET, rc);
    print_value(args[0], take(value));
    return kExitOk;
  }

  int set(const Args& args) {
    int rc = tessclient_set(client_, args[0].c_str(), args[1].c_str(), sync());
    return rc == TESSCLIENT_OK ? kExitOk : report(args[0], TESSCLIENT_SET, rc);
  }

  int sync_tree(const Args& args) {
    int mode = args.empty() ? 0 : *parse_number(args[0], 0, 0xFF);
    int rc = tessclient_sync(client_, mode);
    return rc == TESSCLIENT_OK ? kExitOk : report("sync", TESSCLIENT_SNC, rc);
  }

  int list(const Args& args) {
    TessClientNameValueList* list = nullptr;
    int rc = tessclient_get_name_value_list(client_, args[0].c_str(), 0, &list);
    if (list) print_list(*list);
    tessclient_free_name_value_list(list);
    return rc == TESSCLIENT_OK ? kExitOk : report(args[0], TESSCLIENT_GETNAMEVALUELIST, rc);
  }

  int info(const Args& args) {
    int index = *parse_number(args[1], 0, kMaxIndex);
    Member member;
    int rc = fetch_member(client_, TESSCLIENT_GETPARAMINFO, args[0], index, &member);
    if (rc != TESSCLIENT_OK) return report(args[0], TESSCLIENT_GETPARAMINFO, rc);
    print_param(member, 0);
    return kExitOk;
  }

  int groups(const Args& args) {
    bool first = true;
    if (options_.json) fputs("[", stdout);
    int exit = walk_members(client_, TESSCLIENT_GETGROUPINFO, full_path(args[0]),
                            [&](const Member& group) {
                              print_group_entry(group, first);
                              first = false;
                              return kExitOk;
                            });
    if (options_.json) fputs("]\n", stdout);
    return exit;
  }

  int tree(const Args& args) {
    int exit = tree_group(full_path(args.empty() ? "root" : args[0]), 0);
    if (options_.json) fputs("\n", stdout);
    return exit;
  }

  int option(const Args& args) {
    char* value = nullptr;
    int rc = tessclient_get_param_option(client_, args[0].c_str(), args[1].c_str(), &value);
    if (rc != TESSCLIENT_OK) return report(args[0], TESSCLIENT_GETPARAMOPTION, rc);
    print_value(args[0], take(value));
    return kExitOk;
  }

  int read_file(const Args& args) {
    int rc = tessclient_read_file(client_, args[0].c_str());
    return rc == TESSCLIENT_OK ? kExitOk : report(args[0], TESSCLIENT_READ_FILE, rc);
  }

  int create(const Args& args) {
    char* name = nullptr;
    int number = options_.number.value_or(TESSCLIENT_ANY_NUMBER);
    int rc =
        tessclient_create_group(client_, args[0].c_str(), args[1].c_str(), number, sync(), &name);
    if (rc != TESSCLIENT_OK) return report(args[0], TESSCLIENT_CREATE_GROUP, rc);
    print_value(args[0], take(name));
    return kExitOk;
  }

  int remove(const Args& args) {
    int rc = tessclient_delete_group(client_, args[0].c_str(), sync());
    return rc == TESSCLIENT_OK ? kExitOk : report(args[0], TESSCLIENT_DELETE_GROUP, rc);
  }

 private:
  int sync() const { return options_.sync.value_or(kDefaultSync); }

  void print_value(const std::string& path, const std::string& value) {
    if (options_.json) {
      printf("{\"path\":%s,\"value\":%s}\n", json_string(path).c_str(), json_string(value).c_str());
    } else {
      printf("%s\n", value.c_str());
    }
  }

  void print_list(const TessClientNameValueList& list) {
    if (options_.json) fputs("{", stdout);
    for (size_t i = 0; i < list.count; ++i) {
      const TessClientNameValue& item = list.items[i];
      if (!options_.json) {
        printf("%s=%s\n", item.path, item.value);
        continue;
      }
      std::string value = item.has_value ? json_string(item.value) : "null";
      printf("%s%s:%s", i ? "," : "", json_string(item.path).c_str(), value.c_str());
    }
    if (options_.json) fputs("}\n", stdout);
  }

  void print_param(const Member& param, int depth) {
    if (options_.json) {
      printf("{\"path\":%s,\"name\":%s,\"type\":%s}%s", json_string(param.path).c_str(),
             json_string(param.name).c_str(), json_string(param.type).c_str(),
             depth == 0 ? "\n" : "");
    } else if (depth == 0) {
      printf("%s\t%s\t%s\n", param.path.c_str(), param.name.c_str(), param.type.c_str());
    } else {
      printf("%*s%s (%s)\n", 2 * depth, "", param.name.c_str(), param.type.c_str());
    }
  }

  void print_group_entry(const Member& group, bool first) {
    if (options_.json) {
      printf("%s{\"path\":%s,\"name\":%s}", first ? "" : ",", json_string(group.path).c_str(),
             json_string(group.name).c_str());
    } else {
      printf("%s\n", group.path.c_str());
    }
  }

  // Prints a group, its parameters and, recursively, its subgroups. Every subgroup's path is
  // longer than its parent's, so the recursion ends even if the daemon's answers were odd.
  int tree_group(const std::string& path, int depth) {
    if (options_.json) {
      printf("{\"path\":%s,\"params\":[", json_string(path).c_str());
    } else {
      printf("%*s%s\n", 2 * depth, "",
             depth ? path.substr(path.rfind('.') + 1).c_str() : path.c_str());
    }
    bool first = true;
    auto separate = [&] {
      if (options_.json && !first) fputs(",", stdout);
      first = false;
    };
    int exit = walk_members(client_, TESSCLIENT_GETPARAMINFO, path, [&](const Member& param) {
      separate();
      print_param(param, depth + 1);
      return kExitOk;
    });
    if (options_.json) fputs("],\"groups\":[", stdout);
    first = true;
    if (exit == kExitOk) {
      exit = walk_members(client_, TESSCLIENT_GETGROUPINFO, path, [&](const Member& group) {
        separate();
        return tree_group(group.path, depth + 1);
      });
    }
    if (options_.json) fputs("]}", stdout);
    return exit;
  }

  TessClient* client_;
  const Options& options_;
};

using Handler = int (Command::*)(const Args&);

// A positional argument that must be a number from 0 to max, checked before connecting.
struct NumericArg {
  size_t position;
  int max;
  const char* what;
};

struct CommandSpec {
  const char* name;
  size_t min_args;
  size_t max_args;
  bool takes_sync;
  bool takes_number;
  std::optional<NumericArg> numeric;
  Handler handler;
};

const CommandSpec kCommands[] = {
    {"get", 1, 1, false, false, {}, &Command::get},
    {"set", 2, 2, true, false, {}, &Command::set},
    {"sync", 0, 1, false, false, NumericArg{0, 0xFF, "sync mode"}, &Command::sync_tree},
    {"list", 1, 1, false, false, {}, &Command::list},
    {"info", 2, 2, false, false, NumericArg{1, kMaxIndex, "index"}, &Command::info},
    {"groups", 1, 1, false, false, {}, &Command::groups},
    {"tree", 0, 1, false, false, {}, &Command::tree},
    {"option", 2, 2, false, false, {}, &Command::option},
    {"read-file", 1, 1, false, false, {}, &Command::read_file},
    {"create", 2, 2, true, true, {}, &Command::create},
    {"delete", 1, 1, true, false, {}, &Command::remove},
};

const CommandSpec* find_command(std::string_view name) {
  for (const CommandSpec& spec : kCommands) {
    if (name == spec.name) return &spec;
  }
  return nullptr;
}

// Reads the value of an option given as "--name VALUE" or "--name=VALUE".
const char* option_value(std::string_view arg, std::string_view name, int argc, char** argv,
                         int* i) {
  if (arg.size() > name.size() && arg[name.size()] == '=') return argv[*i] + name.size() + 1;
  if (*i + 1 >= argc) return nullptr;
  return argv[++*i];
}

// Parses one option at argv[*i]; returns an error text, empty when it was fine.
std::string parse_option(int argc, char** argv, int* i, Options* options) {
  std::string_view arg = argv[*i];
  std::string_view name = arg.substr(0, arg.find('='));
  if (name == "--json")
    options->json = true;
  else if (name == "--quiet")
    options->quiet = true;
  else if (name == "--case-sensitive")
    options->case_sensitive = true;
  else if (name == "--help")
    options->help = true;
  else if (name != "--socket" && name != "--sync" && name != "--number") {
    return "unknown option " + std::string(arg);
  } else {
    const char* value = option_value(arg, name, argc, argv, i);
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
  }
  return "";
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
  if (options.sync && !spec->takes_sync) return "--sync does not apply to " + options.words[0];
  if (options.number && !spec->takes_number) {
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
    fprintf(stderr, "tessctl: cannot connect to %s: %s\n", socket, tessclient_status_text(rc));
    return kExitFailed;
  }
  tessclient_set_quiet(client, options.quiet);
  tessclient_set_case_sensitive(client, options.case_sensitive);
  Command command(client, options);
  Args args(options.words.begin() + 1, options.words.end());
  int exit = (command.*spec.handler)(args);
  tessclient_close(client);
  return exit;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (std::string error = parse_args(argc, argv, &options); !error.empty()) {
    return usage_error(error);
  }
  if (options.help) {
    fputs(kUsage, stdout);
    return kExitOk;
  }
  if (options.words.empty()) return usage_error("no command given");
  const CommandSpec* spec = find_command(options.words[0]);
  if (std::string error = check_command(spec, options); !error.empty()) return usage_error(error);
  return run(*spec, options);
}
