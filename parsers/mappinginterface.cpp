#include "parsers/mappinginterface.h"

#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "mapping/quibmapping.h"
#include "parsers/parserframework.h"
#include "values/legacydatarep.h"

namespace {

constexpr const char* kSource = "mappinginterface";
constexpr int kRootSection = 1;
constexpr int kSection = 2;
// Longest name a section contributes to a mapping path.
constexpr size_t kFragmentMax = 64;

// One entered section. Its part of the mapping path is the path's text from `pathLength` on.
struct MappingContextEntry {
  int32_t kind;
  size_t pathLength;  // length of the mapping path below this entry
  const void* user;   // root section: the group path below which mounts are searched
};

// Stacks are kept bottom first.
struct Interface {
  std::vector<MappingContextEntry> mapping;
  std::string path;  // the parts of the entered sections joined, as mounts spell them
  std::vector<Data*> data;
  Param* current = nullptr;
  bool consuming = true;
  bool producing = false;
  int skip_depth = 0;
  // A parser enters the key it has just probed: the path it then pushes is the probed one, and
  // the parameter found for it is taken again without a second look-up. Empty except between a
  // probe and the next push.
  std::string probed_path;
  Param* probed = nullptr;
};

Interface mif;

void set_idle_mode() {
  mif.current = nullptr;
  mif.consuming = true;
  mif.producing = false;
  pif_setSynchronization(1);
}

// A changed parameter met while its file is only read keeps its new value: it is neither read
// nor written then, and goes out with the next write of the file.
bool producible(Param* param) {
  return map_getParamStatus(param) == PARAMSTATUS_UPDATED && !pif_isReadonly();
}

// The mode of a parameter that has just become current, by its status.
void set_param_mode(Param* param) {
  int status = map_getParamStatus(param);
  mif.consuming = status == PARAMSTATUS_DEFINED;
  mif.producing = producible(param);
  pif_setSynchronization(status == PARAMSTATUS_DEFINED || status == PARAMSTATUS_LOADED);
  // A held change is not in step with the file: it must not count as synchronised.
  bool held = status == PARAMSTATUS_UPDATED && !mif.producing;
  if (!held) map_setParamSynced(param);
}

// A parameter is current but its value is neither read nor written: the parser's walk below it
// only counts depth, and copy-through keeps the file's text.
bool passive() {
  return mif.current != nullptr && !mif.consuming && !mif.producing;
}

void start_skip_if_passive() {
  if (passive()) {
    ++mif.skip_depth;
  }
}

// Skip handling of an enter: true when the enter ends here.
bool enter_while_skipping() {
  if (mif.skip_depth == 0) {
    return false;
  }
  ++mif.skip_depth;
  return true;
}

// Skip handling of a leave: true when the leave ends here.
bool leave_while_skipping() {
  if (mif.skip_depth == 0) {
    return false;
  }
  return --mif.skip_depth > 0;
}

Data* current_data() {
  return !mif.data.empty() ? mif.data.back() : nullptr;
}

void push_data(Data* data) {
  mif.data.push_back(data);
}

void pop_data() {
  if (mif.data.empty()) {
    log_fatal(kSource, "Unmatched push/pop of data context!");
  }
  mif.data.pop_back();
}

// Adds a section's part to the mapping path: a root section's name as it is, any other in braces,
// the name cut to 64 characters and 62 in braces.
void append_to_path(const char* name, int kind) {
  if (kind == kRootSection) {
    mif.path.append(name, strnlen(name, kFragmentMax));
    return;
  }
  mif.path += '{';
  mif.path.append(name, strnlen(name, kFragmentMax - 2));
  mif.path += '}';
}

// Pushes a context and makes the parameter mounted at the new path current. Returns that
// parameter, or null when the path maps none.
Param* push_mapping(const char* name, const void* user, int kind) {
  mif.mapping.push_back({kind, mif.path.size(), user});
  append_to_path(name != nullptr ? name : "", kind);
  bool again = !mif.probed_path.empty() && mif.path == mif.probed_path;
  mif.probed_path.clear();
  if (mif.path.empty()) {
    return nullptr;
  }
  const auto* group_path = static_cast<const char*>(mif.mapping.front().user);
  Param* param = again ? mif.probed : map_findParamByMountInGroup(group_path, mif.path.c_str());
  if (param == nullptr) {
    return nullptr;
  }
  if (mif.current != nullptr) {
    log_fatal(kSource, "No double mapping allowed!");
  }
  mif.current = param;
  set_param_mode(param);
  return param;
}

void popMappingContext(int kind) {
  if (mif.mapping.empty()) {
    log_fatal(kSource, "Unmatched push/pop of mapping context!");
  }
  if (mif.mapping.back().kind != kind) {
    log_fatal(kSource, "Mismatching types at popMappingContext!");
  }
  mif.path.resize(mif.mapping.back().pathLength);
  mif.mapping.pop_back();
  if (!mif.data.empty() && !mif.mapping.empty()) {
    log_fatal(kSource, "Serious error in popMappingContext!");
  }
  set_idle_mode();
}

// Pushes the value of a parameter that has just become current.
void push_param_value(Param* param) {
  Data* value = map_getParamData(param);
  if (mif.producing && (value == nullptr || value->type == DATA_NONE)) {
    log_fatal(kSource, "%s", "Parameter '%' does not have data!");
  }
  if (value != nullptr) {
    value->mark = nullptr;
  }
  push_data(value);
}

void enter_section_data(const char* name) {
  Data* data = current_data();
  if (mif.consuming) {
    if (data->type == DATA_NONE) {
      legacy_drep_initializeHash(data);
    }
    Data* element = legacy_drep_getHashValue(data, name);
    if (element == nullptr) {
      element = legacy_drep_createData();
      legacy_drep_setHashValue(data, element, name);
    }
    push_data(element);
    return;
  }
  if (!mif.producing) {
    log_fatal(kSource, "Error in enterSectionData!");
  }
  if (data == nullptr || data->type != DATA_HASH) {
    log_fatal(kSource, "No hash in enterSectionData, section '%s'!", name);
  }
  Data* element = legacy_drep_getHashValue(data, name);
  if (element != nullptr) {
    element->mark = nullptr;
  }
  push_data(element);
}

// The current value as a list, for the producing side; fatal with `message` otherwise.
Data* producing_list(const char* message) {
  Data* data = current_data();
  if (data == nullptr || data->type != DATA_LIST) {
    log_fatal(kSource, "%s", message);
  }
  return data;
}

void empty_current_value() {
  Data* data = current_data();
  if (data->type == DATA_NONE) {
    return;
  }
  if (mif.data.size() == 1) {
    Data* fresh = legacy_drep_createData();
    map_setParamData(mif.current, fresh);
    mif.data.back() = fresh;
    return;
  }
  if (data->type == DATA_LIST) {
    while (Data* first = legacy_drep_getNextToInList(data, nullptr)) {
      legacy_drep_deleteListItem(data, first);
    }
  }
}

bool setting() {
  return mif.consuming && current_data() != nullptr;
}

}  // namespace

int mif_init() {
  mif_reset();
  return 0;
}

void mif_reset() {
  mif.data.clear();
  mif.mapping.clear();
  mif.path.clear();
  mif.skip_depth = 0;
  mif.probed_path.clear();
  mif.current = nullptr;
  mif.consuming = true;
  mif.producing = false;
}

int mif_enterRootSection(const char* name, const char* group_path) {
  if (enter_while_skipping()) {
    return 0;
  }
  if (mif.current != nullptr) {
    log_fatal(kSource, "mif_enterRootSection may only be called at root level!");
  }
  Param* param = push_mapping(name, group_path, kRootSection);
  if (param != nullptr) {
    push_param_value(param);
  }
  start_skip_if_passive();
  return 0;
}

int mif_leaveRootSection() {
  if (leave_while_skipping()) {
    return 0;
  }
  if (!mif.data.empty()) {
    pop_data();
  }
  popMappingContext(kRootSection);
  return 0;
}

int mif_probeRootSection(const char* name, const char* group_path, MappingCallback callback,
                         void* argument) {
  if (!mif.consuming) {
    log_fatal(kSource, "mif_probeRootSection() called from producing code!");
  }
  if (mif.current != nullptr) {
    log_fatal(kSource, "mif_probeRootSection() called from below-root context!");
  }
  Param* param = push_mapping(name, group_path, kRootSection);
  bool updated = param != nullptr && producible(param);
  popMappingContext(kRootSection);
  if (updated && callback != nullptr) {
    callback(argument);
  }
  return 0;
}

int mif_enterSection(const char* name) {
  if (enter_while_skipping()) {
    return 0;
  }
  // Inside a parameter a section is a key of its value; outside, a step of the mapping path.
  if (!mif.data.empty()) {
    enter_section_data(name);
  } else if (Param* param = push_mapping(name, nullptr, kSection)) {
    push_param_value(param);
  }
  start_skip_if_passive();
  return 0;
}

int mif_leaveSection() {
  if (leave_while_skipping()) {
    return 0;
  }
  if (!mif.data.empty()) {
    pop_data();
  }
  if (mif.data.empty()) {
    popMappingContext(kSection);
  }
  return 0;
}

namespace {

int probe_section(const char* name, MappingCallback callback, void* argument, bool key) {
  if (mif.current != nullptr) {
    return 0;
  }
  if (!mif.consuming) {
    log_fatal(kSource, "mif_probeSection() called from producing code!");
  }
  Param* param = push_mapping(name, nullptr, kSection);
  if (param != nullptr && key) {
    pif_noteProbed(param);
  }
  bool updated = param != nullptr && producible(param);
  // A "nosync" parameter is never written by the parser; its setters still run.
  bool nosync = updated && map_typeHasFlag(param, "nosync");
  if (nosync) {
    param->status = PARAMSTATUS_LOADED;
    param->setterPending = 1;
  }
  mif.probed_path = mif.path;
  mif.probed = param;
  popMappingContext(kSection);
  if (updated && !nosync && callback != nullptr) {
    callback(argument);
  }
  return 0;
}

}  // namespace

int mif_probeSection(const char* name, MappingCallback callback, void* argument) {
  return probe_section(name, callback, argument, false);
}

int mif_probeKey(const char* name, MappingCallback callback, void* argument) {
  return probe_section(name, callback, argument, true);
}

int mif_enterSectionNext(const char** name) {
  if (!mif.producing) {
    log_fatal(kSource, "mif_enterSectionNext may only be called from producing code!");
  }
  *name = nullptr;
  Data* data = current_data();
  if (data == nullptr || data->type != DATA_HASH) {
    return -1;
  }
  const char* key = nullptr;
  data->mark = legacy_drep_getNextToInHash(data, data->mark, &key);
  if (data->mark == nullptr) {
    return -1;
  }
  *name = key;
  return 0;
}

int mif_endOfSections() {
  if (mif.skip_depth > 0) {
    return 1;
  }
  if (!mif.producing) {
    log_fatal(kSource, "mif_endOfSections called by non-producing code!");
  }
  Data* data = current_data();
  return data == nullptr || data->mark == nullptr ? 1 : 0;
}

int mif_enterScalar(const char* type_name) {
  if (enter_while_skipping()) {
    return 0;
  }
  Data* data = current_data();
  if (mif.current != nullptr && mif.consuming && data != nullptr && data->type == DATA_NONE) {
    if (legacy_drep_initializeScalar(data, SCALAR_CUSTOM, type_name) != 0) {
      log_fatal(kSource, "Couldn't initialize scalar in enterScalarData!");
    }
  }
  start_skip_if_passive();
  return 0;
}

int mif_leaveScalar() {
  if (leave_while_skipping()) {
    return 0;
  }
  Data* data = current_data();
  if (mif.current != nullptr && data != nullptr && data->type != DATA_SCALAR) {
    log_fatal(kSource, "Not DATA_SCALAR in leaveScalarData!");
  }
  return 0;
}

int mif_indicateList() {
  if (mif.producing) {
    log_fatal(kSource, "mif_indicateList() called from producing code!");
  }
  if (mif.skip_depth > 0 || mif.current == nullptr || !setting()) {
    return 0;
  }
  empty_current_value();
  Data* data = current_data();
  if (data->type != DATA_LIST && legacy_drep_initializeList(data) != 0) {
    log_fatal(kSource, "Couldn't initialize list in mif_indicateList!");
  }
  return 0;
}

int mif_enterList() {
  if (enter_while_skipping()) {
    return 0;
  }
  if (mif.current != nullptr && mif.consuming) {
    Data* data = current_data();
    if (data->type == DATA_NONE && legacy_drep_initializeList(data) != 0) {
      log_fatal(kSource, "Couldn't initialize list in enterListData!");
    }
    Data* element = legacy_drep_createData();
    legacy_drep_addToList(data, element);
    push_data(element);
  } else if (mif.current != nullptr && mif.producing) {
    Data* data = producing_list("Data type is not DATA_LIST in enterListData!");
    // The walk only reads the element; the mark is the list's own cursor.
    auto* element = const_cast<Data*>(data->mark);
    if (element != nullptr) {
      element->mark = nullptr;
    }
    push_data(element);
  }
  start_skip_if_passive();
  return 0;
}

int mif_listSeekNext() {
  if (!mif.producing) {
    log_fatal(kSource, "Error in mif_listSeekNext!");
  }
  Data* data = producing_list("Non-list type in mif_listSeekNext!");
  data->mark = legacy_drep_getNextToInList(data, data->mark);
  return 0;
}

int mif_endOfList() {
  if (mif.skip_depth > 0) {
    return 1;
  }
  if (!mif.producing) {
    log_fatal(kSource, "mif_endOfList called by non-producing code!");
  }
  Data* data = current_data();
  return data == nullptr || data->mark == nullptr ? 1 : 0;
}

int mif_leaveList() {
  if (leave_while_skipping()) {
    return 0;
  }
  if (mif.current != nullptr) {
    pop_data();
  }
  return 0;
}

int mif_notifyStored() {
  if (mif.data.size() == 1) {
    map_notifyParamStored(mif.current);
    pif_noteStored(mif.current);
  }
  return 0;
}

int dif_scalarSetString(const char* text) {
  if (!setting()) {
    return 0;
  }
  return legacy_drep_setString(current_data(), text) == 0 ? 0 : -1;
}

const char* dif_scalarGetString() {
  if (!mif.producing) {
    log_fatal(kSource, "dif_scalarGetString called from non-producing code!");
  }
  Data* data = current_data();
  return data != nullptr ? legacy_drep_getString(data) : nullptr;
}

int dif_scalarSetInt(int value) {
  if (!setting()) {
    return 0;
  }
  return legacy_drep_setInt(current_data(), value) == 0 ? 0 : -1;
}

int dif_scalarGetInt() {
  if (!mif.producing) {
    log_fatal(kSource, "dif_scalarGetInt called from non-producing code!");
  }
  Data* data = current_data();
  return data != nullptr ? legacy_drep_getInt(data) : 0;
}

int dif_customScalarSetFromString(const char* text, int quote) {
  if (!setting()) {
    return 0;
  }
  char flag = static_cast<char>(quote);
  return legacy_drep_setCustomFromString(current_data(), text, &flag) == 0 ? 0 : -1;
}

char* dif_customScalarGetAsString(char* quote) {
  if (!mif.producing) {
    log_fatal(kSource, "dif_customScalarGetAsString called from non-producing code!");
  }
  if (quote != nullptr) {
    *quote = 0;
  }
  Data* data = current_data();
  return data != nullptr ? legacy_drep_getCustomString(data, quote) : nullptr;
}
