// tessard-check [--root DIR] CONFIGFILE [-d DIR]... [--json]
//
// Exit status: 0 clean, 1 findings, 2 when the check cannot run (usage, an unreadable
// configuration file, a root directory that cannot be entered).
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tessard_check.h"
#include "tools/tessctl_json.h"

namespace {

constexpr int kExitClean = 0;
constexpr int kExitFindings = 1;
constexpr int kExitCannotRun = 2;

constexpr char kUsage[] =
    "Usage: tessard-check [--root DIR] CONFIGFILE [-d DIR]... [--json]\n"
    "Checks a tessard configuration without a running daemon and without writing a file.\n"
    "  --root DIR   read every absolute path below DIR (an image's root file system)\n"
    "  -d DIR       read the files below DIR as further configuration files, like tessard -d\n"
    "  --json       print the findings as JSON\n"
    "Exit status: 0 clean, 1 findings, 2 the check could not run.\n";

struct Arguments {
  CheckRequest request;
  std::string root;
  bool json = false;
  bool help = false;
};

int cannot_run(const std::string& message) {
  fprintf(stderr, "tessard-check: %s\n", message.c_str());
  return kExitCannotRun;
}

// An option's value, from "--name=VALUE" or the next argument; null when there is none.
const char* value_of(std::string_view arg, std::string_view name, int argc, char** argv, int* i) {
  if (arg.size() > name.size() && arg[name.size()] == '=') return argv[*i] + name.size() + 1;
  return *i + 1 < argc ? argv[++*i] : nullptr;
}

// An error text, empty when the command line is good.
std::string parse_arguments(int argc, char** argv, Arguments* out) {
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--json") {
      out->json = true;
    } else if (arg == "--help") {
      out->help = true;
    } else if (arg == "-d" || arg.starts_with("-d=")) {
      const char* dir = value_of(arg, "-d", argc, argv, &i);
      if (dir == nullptr) return "-d needs a directory";
      out->request.dirs.emplace_back(dir);
    } else if (arg == "--root" || arg.starts_with("--root=")) {
      const char* root = value_of(arg, "--root", argc, argv, &i);
      if (root == nullptr || *root == '\0') return "--root needs a directory";
      out->root = root;
    } else if (arg.starts_with("-") && arg.size() > 1) {
      return "unknown option " + std::string(arg);
    } else if (out->request.config.empty()) {
      out->request.config = arg;
    } else {
      return "more than one configuration file";
    }
  }
  if (!out->help && out->request.config.empty()) return "no configuration file given";
  return "";
}

bool write_proc(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

// Makes `dir` the root of this process, so that every absolute path is read below it. Root may
// do so at once; another user does it in a user namespace of its own, keeping its own ids (and
// so its own rights to the files).
std::string enter_root(const std::string& dir) {
  if (chdir(dir.c_str()) != 0) return "cannot enter " + dir + ": " + strerror(errno);
  if (geteuid() != 0) {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER) != 0) {
      return "cannot read below " + dir + " without root: no user namespace (" + strerror(errno) +
             ")";
    }
    write_proc("/proc/self/setgroups", "deny");
    write_proc("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1");
    write_proc("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1");
  }
  if (chroot(".") != 0 || chdir("/") != 0) {
    return "cannot make " + dir + " the root: " + strerror(errno);
  }
  return "";
}

std::string as_text(const std::vector<Finding>& findings) {
  std::string out;
  for (const Finding& f : findings) {
    if (!f.file.empty()) out += f.file + (f.line > 0 ? ":" + std::to_string(f.line) : "") + ": ";
    out += f.kind + ": " + f.message + "\n" + f.diff;
  }
  return out;
}

std::string as_json(const std::vector<Finding>& findings) {
  std::string out = "{\"findings\":[";
  for (size_t i = 0; i < findings.size(); ++i) {
    const Finding& f = findings[i];
    out += std::string(i ? "," : "") + "{\"kind\":" + json_string(f.kind) +
           ",\"file\":" + (f.file.empty() ? "null" : json_string(f.file)) +
           ",\"line\":" + (f.line > 0 ? std::to_string(f.line) : "null") +
           ",\"message\":" + json_string(f.message);
    if (!f.diff.empty()) out += ",\"diff\":" + json_string(f.diff);
    out += "}";
  }
  return out + "]}\n";
}

bool json_output = false;

void print_findings(const std::vector<Finding>& findings) {
  std::string out = json_output ? as_json(findings) : as_text(findings);
  fwrite(out.data(), 1, out.size(), stdout);
  fflush(stdout);
  if (findings.empty()) {
    fprintf(stderr, "tessard-check: no findings\n");
  } else {
    fprintf(stderr, "tessard-check: %zu finding%s\n", findings.size(),
            findings.size() == 1 ? "" : "s");
  }
}

}  // namespace

int main(int argc, char** argv) {
  Arguments args;
  if (std::string error = parse_arguments(argc, argv, &args); !error.empty()) {
    fprintf(stderr, "tessard-check: %s\n%s", error.c_str(), kUsage);
    return kExitCannotRun;
  }
  if (args.help) {
    fputs(kUsage, stdout);
    return kExitClean;
  }
  json_output = args.json;
  if (!args.root.empty()) {
    if (std::string error = enter_root(args.root); !error.empty()) return cannot_run(error);
  }
  if (access(args.request.config.c_str(), R_OK) != 0) {
    return cannot_run("cannot read " + args.request.config + ": " + strerror(errno));
  }
  std::vector<Finding> findings;
  // A state that the daemon's code takes as fatal ends the check there, with what was found.
  args.request.on_fatal = print_findings;
  check_configuration(args.request, &findings);
  print_findings(findings);
  return findings.empty() ? kExitClean : kExitFindings;
}
