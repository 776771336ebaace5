// Data records, lists, hashes and deep copy. The byte format is in legacydatarep_bytes.cpp, the
// text dump, integer text fields and range check in legacydatarep_text.cpp.
#include "values/legacydatarep.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "values/legacydatarep_internal.h"

using drep_internal::kSource;

namespace {

// ---- List and hash bookkeeping -----------------------------------------------------------------

ListNode* last_node(const Data* list) {
  return static_cast<ListNode*>(list->last);
}
HashEntry* last_entry(const Data* hash) {
  return static_cast<HashEntry*>(hash->last);
}

// The node after the one holding `previous` (identity), or the first for null. The node a walk
// handed out last is tried first, so walking a list element by element stays linear.
template <typename Node>
Node* walk_next(Node* first, const Data* previous, void*& hint) {
  if (previous == nullptr) {
    return first;
  }
  auto* hinted = static_cast<Node*>(hint);
  if (hinted != nullptr && hinted->value == previous) {
    return hinted->next;
  }
  for (Node* node = first; node != nullptr; node = node->next) {
    if (node->value == previous) {
      return node->next;
    }
  }
  return nullptr;
}

// Unlinks the first node (ListNode or HashEntry) that `matches` from the chain starting at *first
// and keeps the container's tail and walk position valid. Returns the node, or null.
template <typename Node, typename Match>
Node* unlink_first(Node** first, Data* container, Match matches) {
  Node* before = nullptr;
  for (Node* node = *first; node != nullptr; before = node, node = node->next) {
    if (!matches(node)) {
      continue;
    }
    (before == nullptr ? *first : before->next) = node->next;
    if (container->last == node) {
      container->last = before;
    }
    if (container->walkHint == node) {
      container->walkHint = nullptr;
    }
    return node;
  }
  return nullptr;
}

void free_list(ListNode* node) {
  while (node != nullptr) {
    ListNode* next = node->next;
    legacy_drep_freeData(node->value);
    free(node);
    node = next;
  }
}

void free_entry(HashEntry* entry) {
  free(entry->key);
  legacy_drep_freeData(entry->value);
  free(entry);
}

void free_entries(HashEntry* entry) {
  while (entry != nullptr) {
    HashEntry* next = entry->next;
    free_entry(entry);
    entry = next;
  }
}

void free_scalar(Data* data) {
  if (data->scalarKind == SCALAR_STRING) {
    free(data->stringValue);
  }
  if (data->scalarKind == SCALAR_CUSTOM) {
    scalar_release(&data->custom);
  }
}

HashEntry* find_entry(const Data* hash, const char* key) {
  for (HashEntry* entry = hash->firstEntry; entry != nullptr; entry = entry->next) {
    if (strcmp(entry->key, key) == 0) {
      return entry;
    }
  }
  return nullptr;
}

void append_entry(Data* hash, HashEntry* entry) {
  if (hash->firstEntry == nullptr) {
    hash->firstEntry = entry;
  } else {
    last_entry(hash)->next = entry;
  }
  hash->last = entry;
}

const CustomScalar* custom_of(const Data* data) {
  if (data->scalarKind != SCALAR_CUSTOM) {
    log_fatal(kSource, "Scalar was not a custom!");
  }
  return &data->custom;
}

}  // namespace

// ---- Creation and kinds ------------------------------------------------------------------------

Data* legacy_drep_createData() {
  auto* data = static_cast<Data*>(calloc(1, sizeof(Data)));
  if (data == nullptr) {
    log_fatal(kSource, "Out of memory in legacy_drep_createData!");
  }
  data->type = DATA_NONE;
  data->typeName = "NONE";
  return data;
}

int legacy_drep_initializeList(Data* data) {
  if (data == nullptr || data->type != DATA_NONE) {
    log_fatal(kSource, "legacy_drep_initializeList: Datatype was not DATA_NONE!");
  }
  data->type = DATA_LIST;
  data->typeName = "LIST";
  data->first = nullptr;
  data->last = nullptr;
  return 0;
}

int legacy_drep_initializeHash(Data* data) {
  if (data == nullptr || data->type != DATA_NONE) {
    return -1;
  }
  data->type = DATA_HASH;
  data->typeName = "HASH";
  data->firstEntry = nullptr;
  data->last = nullptr;
  return 0;
}

int legacy_drep_initializeScalar(Data* data, int kind, const char* typeName) {
  if (data == nullptr || data->type != DATA_NONE) {
    return -1;
  }
  if (kind == static_cast<int>(SCALAR_INT)) {
    data->typeName = "INT";
    data->intValue = 0;
  } else if (kind == static_cast<int>(SCALAR_STRING)) {
    data->typeName = "STRING";
    data->stringValue = nullptr;
  } else if (kind == static_cast<int>(SCALAR_CUSTOM)) {
    data->custom = CustomScalar{};
    if (scalar_initialize(&data->custom, typeName) != 0) {
      scalar_release(&data->custom);
      return -1;
    }
    data->typeName = scalar_getTypeName(&data->custom);
  } else {
    log_fatal(kSource, "Strange kind of scalar!");
  }
  data->type = DATA_SCALAR;
  data->scalarKind = kind;
  data->customFlag = 0;
  return 0;
}

// ---- Scalars -----------------------------------------------------------------------------------

int legacy_drep_setInt(Data* data, int value) {
  if (data == nullptr || data->type != DATA_SCALAR || data->scalarKind != SCALAR_INT) {
    return -1;
  }
  data->intValue = value;
  return 0;
}

int legacy_drep_getInt(const Data* data) {
  if (data == nullptr || data->type != DATA_SCALAR || data->scalarKind != SCALAR_INT) {
    return 0;
  }
  return data->intValue;
}

int legacy_drep_setString(Data* data, const char* text) {
  if (data == nullptr || text == nullptr) {
    return -1;
  }
  if (data->type != DATA_SCALAR || data->scalarKind != SCALAR_STRING) {
    return -1;
  }
  size_t size = strlen(text) + 1;
  auto* copy = static_cast<char*>(realloc(data->stringValue, size));
  if (copy == nullptr) {
    return -1;
  }
  memcpy(copy, text, size);
  data->stringValue = copy;
  return 0;
}

const char* legacy_drep_getString(const Data* data) {
  if (data == nullptr || data->type != DATA_SCALAR || data->scalarKind != SCALAR_STRING) {
    return nullptr;
  }
  return data->stringValue;
}

int legacy_drep_setCustomFromString(Data* data, const char* text, const char* flag) {
  if (data == nullptr || data->type != DATA_SCALAR) {
    return -1;
  }
  int result = -1;
  scalar_setFromString(const_cast<CustomScalar*>(custom_of(data)), text, &result);
  if (result != 0) {
    return -1;
  }
  if (flag != nullptr) {
    data->customFlag = *flag;
  }
  return 0;
}

char* legacy_drep_getCustomString(const Data* data, char* flag) {
  if (data == nullptr || data->type != DATA_SCALAR) {
    return nullptr;
  }
  int result = -1;
  char* text = scalar_getString(custom_of(data), &result);
  if (result != 0) {
    log_fatal(kSource, "Failed to get string from custom.");
  }
  if (flag != nullptr) {
    *flag = data->customFlag;
  }
  return text;
}

int legacy_drep_getCustomStringToBuffer(const Data* data, char* buffer, int size) {
  if (data == nullptr || data->type != DATA_SCALAR) {
    return -1;
  }
  int result = -1;
  scalar_getStringToBuffer(custom_of(data), buffer, &size, &result);
  if (result == -1) {
    log_fatal(kSource, "Failed to get string from custom.");
  }
  return result;
}

// ---- Lists -------------------------------------------------------------------------------------

int legacy_drep_addToList(Data* list, Data* value) {
  if (list == nullptr || list->type != DATA_LIST) {
    log_fatal(kSource, "legacy_drep_addToList: Datatype was not DATA_LIST!");
  }
  auto* node = static_cast<ListNode*>(calloc(1, sizeof(ListNode)));
  if (node == nullptr) {
    log_fatal(kSource, "legacy_drep_addToList: Out of memory!");
  }
  node->value = value;
  if (list->first == nullptr) {
    list->first = node;
  } else {
    last_node(list)->next = node;
  }
  list->last = node;
  return 0;
}

Data* legacy_drep_getFirstOfList(const Data* list) {
  if (list == nullptr || list->type != DATA_LIST) {
    log_fatal(kSource, "legacy_drep_getFirstOfList: Datatype was not DATA_LIST!");
  }
  return list->first != nullptr ? list->first->value : nullptr;
}

Data* legacy_drep_getNextToInList(const Data* list, const Data* previous) {
  if (list == nullptr || list->type != DATA_LIST) {
    log_fatal(kSource, "legacy_drep_getNextToInList: Datatype was not DATA_LIST!");
  }
  ListNode* node = walk_next(list->first, previous, list->walkHint);
  if (node == nullptr) {
    return nullptr;
  }
  list->walkHint = node;
  return node->value;
}

int legacy_drep_deleteListItem(Data* list, Data* value) {
  if (list == nullptr || list->type != DATA_LIST) {
    log_fatal(kSource, "legacy_drep_deleteListItem: Datatype was not DATA_LIST!");
  }
  ListNode* node =
      unlink_first(&list->first, list, [value](const ListNode* n) { return n->value == value; });
  if (node != nullptr) {
    legacy_drep_freeData(node->value);
    free(node);
  }
  return 0;
}

// ---- Hashes ------------------------------------------------------------------------------------

HashEntry* drep_internal::store_hash_value(Data* hash, HashEntry* existing, Data* value,
                                           const char* key) {
  if (existing != nullptr) {
    if (existing->value != value) {
      legacy_drep_freeData(existing->value);
    }
    existing->value = value;
    return existing;
  }
  auto* entry = static_cast<HashEntry*>(calloc(1, sizeof(HashEntry)));
  if (entry == nullptr) {
    log_fatal(kSource, "Out of memory when allocating hash value!");
  }
  entry->key = strdup(key);
  if (entry->key == nullptr) {
    log_error(kSource, "Memory allocation failed in %s.", "legacy_drep_setHashValue");
    free(entry);
    return nullptr;
  }
  entry->value = value;
  append_entry(hash, entry);
  return entry;
}

Data* legacy_drep_setHashValue(Data* hash, Data* value, const char* key) {
  if (hash == nullptr || key == nullptr || hash->type != DATA_HASH) {
    return nullptr;
  }
  HashEntry* entry = drep_internal::store_hash_value(hash, find_entry(hash, key), value, key);
  return entry != nullptr ? value : nullptr;
}

Data* legacy_drep_getHashValue(const Data* hash, const char* key) {
  if (hash == nullptr || key == nullptr) {
    return nullptr;
  }
  if (hash->type != DATA_HASH) {
    log_fatal(kSource, "Not hash in legacy_drep_getHashValue!");
  }
  HashEntry* entry = find_entry(hash, key);
  return entry != nullptr ? entry->value : nullptr;
}

Data* legacy_drep_getNextToInHash(const Data* hash, const Data* previous, const char** key) {
  if (hash == nullptr || hash->type != DATA_HASH) {
    log_fatal(kSource, "legacy_drep_getNextToInHash: Datatype was not DATA_HASH!");
  }
  HashEntry* entry = walk_next(hash->firstEntry, previous, hash->walkHint);
  if (key != nullptr) {
    *key = entry != nullptr ? entry->key : nullptr;
  }
  if (entry == nullptr) {
    return nullptr;
  }
  hash->walkHint = entry;
  return entry->value;
}

int legacy_drep_deleteHashValue(Data* hash, const char* key) {
  if (hash == nullptr || hash->type != DATA_HASH) {
    return -1;
  }
  if (key == nullptr) {
    return 0;
  }
  HashEntry* entry = unlink_first(&hash->firstEntry, hash,
                                  [key](const HashEntry* e) { return strcmp(e->key, key) == 0; });
  if (entry != nullptr) {
    free_entry(entry);
  }
  return 0;
}

// ---- Whole values ------------------------------------------------------------------------------

const char* legacy_drep_getTypeName(const Data* data) {
  return data != nullptr ? data->typeName : nullptr;
}

void legacy_drep_freeData(Data* data) {
  if (data == nullptr) {
    return;
  }
  if (data->type == DATA_LIST) {
    free_list(data->first);
  }
  if (data->type == DATA_HASH) {
    free_entries(data->firstEntry);
  }
  if (data->type == DATA_SCALAR) {
    free_scalar(data);
  }
  free(data);
}

void legacy_drep_resetData(Data** slot) {
  if (slot == nullptr) {
    return;
  }
  legacy_drep_freeData(*slot);
  *slot = legacy_drep_createData();
}

// ---- Deep copy ---------------------------------------------------------------------------------

namespace {

Data* help_copyData(const Data* source);

void help_copyList(const Data* source, Data* copy) {
  if (legacy_drep_initializeList(copy) != 0) {
    log_fatal(kSource, "Couldn't initialize list in help_copyList!");
  }
  for (ListNode* node = source->first; node != nullptr; node = node->next) {
    legacy_drep_addToList(copy, help_copyData(node->value));
  }
}

void help_copyHash(const Data* source, Data* copy) {
  if (legacy_drep_initializeHash(copy) != 0) {
    log_fatal(kSource, "Couldn't initialize hash in help_copyHash!");
  }
  // The source's keys are distinct, so each copy is appended without searching the copy.
  for (HashEntry* entry = source->firstEntry; entry != nullptr; entry = entry->next) {
    Data* value = help_copyData(entry->value);
    if (drep_internal::store_hash_value(copy, nullptr, value, entry->key) == nullptr) {
      legacy_drep_freeData(value);
    }
  }
}

// The copy is made from the source's text, as every other value is set. A value the type cannot
// print (an "ipaddr" never set, family 0) is copied byte for byte instead of ending the process.
void help_copyScalar(const Data* source, Data* copy) {
  if (source->scalarKind != SCALAR_CUSTOM && source->scalarKind != SCALAR_NONE) {
    log_fatal(kSource, "Only SCALAR_CUSTOM supported in help_copyScalar!");
  }
  if (legacy_drep_initializeScalar(copy, SCALAR_CUSTOM, source->typeName) != 0) {
    log_fatal(kSource, "Couldn't initialize scalar in help_copyScalar!");
  }
  copy->customFlag = source->customFlag;
  if (source->scalarKind != SCALAR_CUSTOM) {
    return;
  }
  int result = -1;
  CString text(scalar_getString(&source->custom, &result));
  if (result == 0) {
    scalar_setFromString(&copy->custom, text.get(), &result);
  } else {
    scalar_setFromBytes(&copy->custom, scalar_bytes(&source->custom), source->custom.size, &result);
  }
}

Data* help_copyData(const Data* source) {
  if (source == nullptr) {
    return nullptr;
  }
  Data* copy = legacy_drep_createData();
  switch (source->type) {
    case DATA_NONE:
      break;
    case DATA_LIST:
      help_copyList(source, copy);
      break;
    case DATA_HASH:
      help_copyHash(source, copy);
      break;
    case DATA_SCALAR:
      help_copyScalar(source, copy);
      break;
    default:
      log_fatal(kSource, "Corrupt data in legacy_drep_copyData!");
  }
  return copy;
}

}  // namespace

Data* legacy_drep_copyData(const Data* data) {
  return help_copyData(data);
}
