#include "config/taglist.h"

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <array>
#include <unistd.h>

#include "common/files.h"
#include "common/text.h"

namespace config {
namespace {

using common::FilePtr;

constexpr std::size_t kLineBuffer = 8192;

// The documented binary search; cmp(i) compares the looked-up key with slot i.
template <class Compare>
int bsearch_pos(int low, int high, Compare cmp) {
  while (low < high) {
    const int mid = (low + high) / 2;
    const int c = cmp(mid);
    if (c == 0) return mid;
    if (c < 0) {
      high = mid - 1;
    } else {
      low = mid + 1;
    }
  }
  if (low != high) return low;
  return cmp(low) <= 0 ? low : low + 1;
}

// Sign of strcmp(a, b) for NUL-free texts (char_traits compares as unsigned
// char, as strcmp does).
int compare_keys(std::string_view a, std::string_view b) {
  const int c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

int compare_slots(const tagitem* a, const tagitem* b) {
  return __tagitem_tag_compare_func(&a, &b);
}

// The key named by a pattern: formatted (cut to kTaglistMaxKey) when it
// holds a '%', else the pattern itself.
std::string expand_key(const char* pattern, std::va_list args) {
  if (std::strchr(pattern, '%') == nullptr) return pattern;
  std::array<char, kTaglistMaxKey + 1> buffer{};
  std::vsnprintf(buffer.data(), buffer.size(), pattern, args);
  return buffer.data();
}

// What the unsorted insert and replace got by passing an item's key as a
// key pattern without arguments; data is never used as a format, so "%%"
// reads "%" and any other conversion stays as written.
std::string key_as_pattern(std::string_view key) {
  if (key.find('%') == std::string_view::npos) return std::string(key);
  return common::cut(common::copy_as_own_format(key), kTaglistMaxKey);
}

// The text up to its first NUL byte, as the C string functions see it.
std::string_view as_c_string(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

void insert_parsed_line(taglist* list, std::string_view line, std::string_view prefix) {
  if (TagitemPtr item = parse_tagitem_line(line, prefix)) insert_taglist(list, std::move(item));
}

bool save_atomically(const taglist* list, const std::string& path) {
  std::array<char, PATH_MAX> resolved{};
  if (::realpath(path.c_str(), resolved.data()) == nullptr) return false;
  std::string temporary = common::format("%s.XXXXXX", resolved.data());
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) return false;
  std::FILE* stream = ::fdopen(fd, "w");
  if (stream == nullptr) {
    ::close(fd);
    ::unlink(temporary.c_str());
    return false;
  }
  dump_taglist(list, stream);
  // A write that failed (a full disk) must not replace a good file with a
  // cut one.
  const bool written = std::ferror(stream) == 0;
  const bool closed = std::fclose(stream) == 0;
  const int renamed = written && closed ? std::rename(temporary.c_str(), resolved.data()) : -1;
  ::unlink(temporary.c_str());
  return renamed == 0;
}

bool save_directly(const taglist* list, const std::string& path) {
  FilePtr stream(std::fopen(path.c_str(), "w"));
  if (!stream) return false;
  dump_taglist(list, stream.get());
  return true;
}

}  // namespace

// --- lifetime

TagitemPtr create_tagitem(std::string_view key, std::string_view value) {
  auto item = std::make_unique<tagitem>();
  item->key = std::string(key);
  item->value = std::string(value);
  item->spare = 0;
  return item;
}

void free_tagitem(TagitemPtr item) { item.reset(); }

TaglistPtr create_taglist() {
  auto list = std::make_unique<taglist>();
  list->count = 0;
  list->sorted = 0;
  list->capacity = kTaglistInitialCapacity;
  list->items.reserve(static_cast<std::size_t>(kTaglistInitialCapacity));
  return list;
}

void free_taglist(TaglistPtr list) {
  if (!list) return;
  if (list->capacity > 0) {
    std::vector<TagitemPtr> items = std::move(list->items);
    list->items.clear();
    list->count = 0;
    list->capacity = 0;
    for (TagitemPtr& item : items) item.reset();
  }
  list.reset();
}

void sort_taglist(taglist* list) {
  if (list == nullptr) return;
  std::sort(list->items.begin(), list->items.begin() + list->count,
            [](const TagitemPtr& a, const TagitemPtr& b) {
              return compare_slots(a.get(), b.get()) < 0;
            });
  list->sorted = 1;
}

int unsort_taglist(taglist* list) {
  if (list != nullptr) list->sorted = 0;
  return 0;
}

// --- search

int __tagitem_tag_compare_func(const void* a, const void* b) {
  const tagitem* left = *static_cast<const tagitem* const*>(a);
  const tagitem* right = *static_cast<const tagitem* const*>(b);
  return std::strcmp(left->key.c_str(), right->key.c_str());
}

int __bsearch_taglist_pos(const tagitem* key, const TagitemPtr* base, int low, int high,
                          std::size_t width, int (*compare)(const void*, const void*)) {
  (void)width;  // the slots are typed; width is always sizeof(TagitemPtr)
  return bsearch_pos(low, high, [&](int mid) {
    const tagitem* slot = base[mid].get();
    return compare(&key, &slot);
  });
}

int __search_taglist(const taglist* list, std::string_view key) {
  if (list == nullptr) return -1;
  key = as_c_string(key);
  const auto& items = list->items;
  if (list->sorted) {
    const int pos = bsearch_pos(0, list->count - 1,
                                [&](int mid) { return compare_keys(key, items[mid]->key); });
    if (pos >= list->count || items[pos]->key != key) return -1;
    return pos;
  }
  for (int i = 0; i < list->count; ++i) {
    if (items[i]->key == key) return i;
  }
  return -1;
}

// --- insertion and removal

int __insert_taglist_pos(taglist* list, int pos, TagitemPtr item) {
  if (list == nullptr || !item) return 0;
  if (list->count >= list->capacity) {
    list->capacity += kTaglistGrowth;
    list->items.reserve(static_cast<std::size_t>(list->capacity));
  }
  if (pos >= list->count) {
    list->items.push_back(std::move(item));
  } else {
    list->items.insert(list->items.begin() + std::max(pos, 0), std::move(item));
  }
  ++list->count;
  return 1;
}

int insert_taglist(taglist* list, TagitemPtr item) {
  if (list == nullptr || !item) return 0;
  if (list->sorted) {
    const int pos = __bsearch_taglist_pos(item.get(), list->items.data(), 0, list->count - 1,
                                          sizeof(TagitemPtr), __tagitem_tag_compare_func);
    if (pos < list->count && list->items[pos]->key == item->key) return 0;
    return __insert_taglist_pos(list, pos, std::move(item));
  }
  if (exist_taglist_key(list, key_as_pattern(item->key))) return 0;
  return __insert_taglist_pos(list, list->count, std::move(item));
}

int replace_taglist(taglist* list, TagitemPtr item) {
  if (list == nullptr || !item) return 0;
  if (list->sorted) {
    const int pos = __bsearch_taglist_pos(item.get(), list->items.data(), 0, list->count - 1,
                                          sizeof(TagitemPtr), __tagitem_tag_compare_func);
    if (pos < list->count && list->items[pos]->key == item->key) {
      list->items[pos] = std::move(item);
      return 1;
    }
    return __insert_taglist_pos(list, pos, std::move(item));
  }
  remove_taglist_key(list, key_as_pattern(item->key));
  return __insert_taglist_pos(list, list->count, std::move(item));
}

int __remove_taglist_pos(taglist* list, int pos) {
  if (list == nullptr || pos < 0 || pos >= list->count) return 0;
  auto& items = list->items;
  TagitemPtr removed = std::move(items[pos]);
  if (pos == list->count - 1) {
    items.pop_back();
  } else if (list->sorted) {
    items.erase(items.begin() + pos);  // order kept
  } else {
    items[pos] = std::move(items.back());  // constant time, order not kept
    items.pop_back();
  }
  --list->count;
  removed.reset();
  return 1;
}

int exist_taglist_key(const taglist* list, std::string_view key) {
  return __search_taglist(list, key) >= 0 ? 1 : 0;
}

int remove_taglist_key(taglist* list, std::string_view key) {
  const int pos = __search_taglist(list, key);
  if (pos < 0) return 0;
  return __remove_taglist_pos(list, pos);
}

int exist_taglist(const taglist* list, const char* key_pattern, ...) {
  if (key_pattern == nullptr) return 0;
  std::va_list args;
  va_start(args, key_pattern);
  const std::string key = expand_key(key_pattern, args);
  va_end(args);
  return exist_taglist_key(list, key);
}

int remove_taglist(taglist* list, const char* key_pattern, ...) {
  if (key_pattern == nullptr) return 0;
  std::va_list args;
  va_start(args, key_pattern);
  const std::string key = expand_key(key_pattern, args);
  va_end(args);
  return remove_taglist_key(list, key);
}

// --- reading values

std::string_view get_taglist_default(const taglist* list, std::string_view key,
                                     std::string_view def) {
  const int pos = __search_taglist(list, key);
  if (pos < 0 || list->items[pos]->value.empty()) return def;
  return list->items[pos]->value;
}

std::string_view get_taglist_default_ex(const taglist* list, std::string_view def,
                                        const char* key_pattern, ...) {
  if (key_pattern == nullptr) return def;
  std::va_list args;
  va_start(args, key_pattern);
  const std::string key = expand_key(key_pattern, args);
  va_end(args);
  return get_taglist_default(list, key, def);
}

std::string get_taglist_default_dup(const taglist* list, std::string_view key,
                                    std::string_view def) {
  return std::string(get_taglist_default(list, key, def));
}

// --- files and text

TagitemPtr parse_tagitem_line(std::string_view line, std::string_view prefix) {
  if (!line.empty() && line.front() == '#') return nullptr;
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (!line.empty() && line.back() == '"') line.remove_suffix(1);
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return nullptr;
  const std::string_view key = line.substr(0, equals);
  std::string_view value = line.substr(equals + 1);
  if (!value.empty() && value.front() == '"') value.remove_prefix(1);
  if (!prefix.empty() && !key.starts_with(prefix)) return nullptr;
  return create_tagitem(key, value);
}

TaglistPtr load_taglist_ex(const std::string& path, int sorted, const char* prefix) {
  TaglistPtr list = create_taglist();
  if (sorted) sort_taglist(list.get());
  FilePtr stream(std::fopen(path.c_str(), "r"));
  if (!stream) return list;
  const std::string_view filter = prefix != nullptr ? prefix : "";
  std::vector<char> buffer(kLineBuffer);
  while (!std::feof(stream.get())) {
    buffer[0] = '\0';
    if (std::fgets(buffer.data(), static_cast<int>(buffer.size()), stream.get()) == nullptr ||
        buffer[0] == '\0') {
      break;
    }
    insert_parsed_line(list.get(), buffer.data(), filter);
  }
  return list;
}

TaglistPtr load_taglist_buffer(std::string_view text, int sorted) {
  TaglistPtr list = create_taglist();
  if (sorted) sort_taglist(list.get());
  text = as_c_string(text);
  std::size_t pos = 0;
  while (pos < text.size()) {
    // "%[^\r\n]" needs one character; "%n" is only reached after "%*[\r\n]".
    const std::size_t line_end = text.find_first_of("\r\n", pos);
    if (line_end == pos || line_end == std::string_view::npos) break;
    const std::size_t next = std::min(text.find_first_not_of("\r\n", line_end), text.size());
    const std::string_view line = text.substr(pos, std::min(line_end - pos, kLineBuffer - 1));
    insert_parsed_line(list.get(), line, "");
    pos = next;
  }
  return list;
}

void dump_taglist(const taglist* list, std::FILE* stream) {
  if (list == nullptr || stream == nullptr) return;
  for (int i = 0; i < list->count; ++i) {
    std::fprintf(stream, "%s=\"%s\"\n", list->items[i]->key.c_str(),
                 list->items[i]->value.c_str());
  }
}

std::string dump_taglist_string(const taglist* list) {
  std::string out;
  if (list == nullptr) return out;
  std::size_t size = 1;
  for (int i = 0; i < list->count; ++i) {
    size += list->items[i]->key.size() + list->items[i]->value.size() + 4;
  }
  out.reserve(size);
  for (int i = 0; i < list->count; ++i) {
    // As "%s" would: each text up to its first NUL.
    out += list->items[i]->key.c_str();
    out += "=\"";
    out += list->items[i]->value.c_str();
    out += "\"\n";
  }
  return out;
}

int save_taglist(const taglist* list, const std::string& path, int mode) {
  switch (mode) {
    case 0:
      return (save_atomically(list, path) || save_directly(list, path)) ? 1 : 0;
    case 1:
      return save_atomically(list, path) ? 1 : 0;
    case 2:
      return save_directly(list, path) ? 1 : 0;
    default:
      return 0;
  }
}

}  // namespace config
