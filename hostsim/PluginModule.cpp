// Plug-in loading: the description file beside the library, then the library itself.
#include <dlfcn.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "hostsim/Host.h"
#include "hostsim/PluginDescription.h"

namespace hostsim {

namespace {

std::string Trim(const std::string& s) {
  const char* blanks = " \t\r";
  const size_t b = s.find_first_not_of(blanks);
  if (b == std::string::npos) return "";
  const size_t e = s.find_last_not_of(blanks);
  return s.substr(b, e - b + 1);
}

bool ParseUint32(const std::string& text, uint32_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (errno != 0 || end == text.c_str() || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

PluginDescription ParsePluginDescription(const std::string& text, const std::string& origin) {
  PluginDescription d;
  d.path = origin;
  std::map<std::string, int> seenAt;  // key -> line
  std::istringstream in(text);
  std::string raw;
  int line = 0;
  auto fail = [&](int at, const std::string& what) -> std::runtime_error {
    return std::runtime_error(origin + ":" + std::to_string(at) + ": " + what);
  };
  while (std::getline(in, raw)) {
    ++line;
    const std::string s = Trim(raw);
    if (s.empty() || s[0] == '#') continue;
    const size_t eq = s.find('=');
    if (eq == std::string::npos) throw fail(line, "expected key=value, found \"" + s + "\"");
    const std::string key = Trim(s.substr(0, eq));
    const std::string value = Trim(s.substr(eq + 1));
    if (seenAt.count(key)) {
      throw fail(line, "\"" + key + "\" repeated (first given on line " +
                           std::to_string(seenAt[key]) + ")");
    }
    seenAt[key] = line;
    std::string* textField = nullptr;
    uint32_t* numberField = nullptr;
    if (key == "name") textField = &d.name;
    else if (key == "match_name") textField = &d.matchName;
    else if (key == "category") textField = &d.category;
    else if (key == "entry_point") textField = &d.entryPoint;
    else if (key == "version") numberField = &d.version;
    else if (key == "out_flags") numberField = &d.outFlags;
    else if (key == "out_flags2") numberField = &d.outFlags2;
    else throw fail(line, "unknown key \"" + key + "\"");
    if (textField) {
      if (value.empty()) throw fail(line, "\"" + key + "\" is empty");
      *textField = value;
    } else if (!ParseUint32(value, numberField)) {
      throw fail(line, "\"" + key + "\" needs a 32-bit unsigned number, found \"" + value + "\"");
    }
  }
  for (const char* key : {"name", "match_name", "category", "entry_point", "version",
                          "out_flags", "out_flags2"}) {
    if (!seenAt.count(key)) {
      throw std::runtime_error(origin + ": \"" + key + "\" is missing");
    }
  }
  return d;
}

PluginDescription ReadPluginDescription(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read plug-in description " + path + ": " +
                             std::strerror(errno));
  }
  std::ostringstream text;
  text << file.rdbuf();
  return ParsePluginDescription(text.str(), path);
}

std::string DescriptionPathFor(const std::string& modulePath) {
  const size_t slash = modulePath.find_last_of('/');
  const size_t dot = modulePath.find_last_of('.');
  const bool hasExtension =
      dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
  return (hasExtension ? modulePath.substr(0, dot) : modulePath) + ".plugin";
}

PluginModule::PluginModule(const std::string& path, const std::string& descriptionPath)
    : path_(path) {
  // The description comes first: the host decides from it whether and how to load the code.
  description_ =
      ReadPluginDescription(descriptionPath.empty() ? DescriptionPathFor(path) : descriptionPath);
  dlerror();
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    const char* why = dlerror();
    throw std::runtime_error("cannot load plug-in " + path + ": " +
                             (why ? why : "unknown loader error"));
  }
  dlerror();
  void* entry = dlsym(handle_, description_.entryPoint.c_str());
  const char* why = dlerror();
  if (!entry || why) {
    const std::string message = "plug-in " + path + " has no entry point \"" +
                                description_.entryPoint + "\" (named by " +
                                description_.path + ")" + (why ? std::string(": ") + why : "");
    dlclose(handle_);
    handle_ = nullptr;
    throw std::runtime_error(message);
  }
  entry_ = reinterpret_cast<PF_FilterProc>(entry);
}

PluginModule::~PluginModule() {
  if (handle_) dlclose(handle_);
}

void* PluginModule::Symbol(const char* name) const {
  if (!handle_ || !name) return nullptr;
  return dlsym(handle_, name);
}

}  // namespace hostsim
