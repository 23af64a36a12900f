// The taglist store: KEY="value" files held as a list of key/value items.
//
// A sorted list keeps its items in strictly ascending strcmp order of key and
// is searched by binary search; an unsorted list keeps insertion order and is
// searched linearly. Keys are unique when items enter through insert_taglist
// (the first item of a key wins) or replace_taglist (the new one wins).
//
// A list belongs to one thread at a time; the store keeps no global state.
// Keys and values are C-like texts: they hold no NUL byte (the loaders cut a
// line at its first NUL). A null list reads as empty in every reader; the
// mutators return 0 for a null list and do nothing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace config {

struct tagitem {
  std::string key;
  std::string value;
  std::int32_t spare = 0;  // set to 0 at creation; never read by the store
};

struct taglist {
  std::int32_t count = 0;     // items in use
  std::int32_t capacity = 0;  // item slots: 1024 at creation, then +256 per growth
  std::int32_t sorted = 0;
  // items[0 .. count-1]: the vector holds exactly count items, with storage
  // reserved for capacity of them.
  std::vector<std::unique_ptr<tagitem>> items;
};

using TaglistPtr = std::unique_ptr<taglist>;
using TagitemPtr = std::unique_ptr<tagitem>;

inline constexpr std::int32_t kTaglistInitialCapacity = 1024;
inline constexpr std::int32_t kTaglistGrowth = 256;
// An expanded key pattern is cut to this many characters.
inline constexpr std::size_t kTaglistMaxKey = 255;

// --- lifetime
TagitemPtr create_tagitem(std::string_view key, std::string_view value);
void free_tagitem(TagitemPtr item);
TaglistPtr create_taglist();
void free_taglist(TaglistPtr list);
void sort_taglist(taglist* list);
int unsort_taglist(taglist* list);

// --- search
// strcmp of the keys of the two items the slots point at; a and b each point
// at a `const tagitem*` (an item-pointer slot).
int __tagitem_tag_compare_func(const void* a, const void* b);
// The index of an equal key, or where the key would be inserted (0..count).
// Searches base[low .. high]; compare gets (&key, &slot) as above. width is
// the size of one slot (sizeof(TagitemPtr)) and is not otherwise used.
int __bsearch_taglist_pos(const tagitem* key, const TagitemPtr* base, int low, int high,
                          std::size_t width, int (*compare)(const void*, const void*));
// Index of the item with exactly this key, or -1.
int __search_taglist(const taglist* list, std::string_view key);

// --- insertion and removal
// Puts item at pos (a pos above count appends); grows capacity by 256 when
// full. No key check. 1, or 0 for a null list or item.
int __insert_taglist_pos(taglist* list, int pos, TagitemPtr item);
// 1 when inserted; 0 when the key exists (the item is freed: first wins).
// An unsorted list checks the key as a pattern without arguments would name
// it: "%%" reads "%" (see docs/deviations.md).
int insert_taglist(taglist* list, TagitemPtr item);
// 1: the new item replaces any item of its key (unsorted: removed with the
// same pattern reading as insert_taglist, then appended).
int replace_taglist(taglist* list, TagitemPtr item);
// Removes and frees items[pos]: 1, or 0 when pos is out of range. A sorted
// list keeps its order; an unsorted one moves its last item into the hole.
int __remove_taglist_pos(taglist* list, int pos);

// Key patterns: when the pattern holds a '%', the key is the pattern
// formatted with the arguments (cut to 255 characters); otherwise the
// pattern itself is the key and the arguments are ignored. Patterns are
// literals in the code; a key that comes from data is looked up with the
// *_key variants, which never format. A null pattern names no key.
int exist_taglist(const taglist* list, const char* key_pattern, ...)
    __attribute__((format(printf, 2, 3)));
int remove_taglist(taglist* list, const char* key_pattern, ...)
    __attribute__((format(printf, 2, 3)));
int exist_taglist_key(const taglist* list, std::string_view key);
int remove_taglist_key(taglist* list, std::string_view key);

// --- reading values. Results are borrowed: they point into the list (valid
// until that item is removed or replaced or the list is freed) or are the
// default itself. A missing item and an empty value both give the default.
// A null list reads as empty.
std::string_view get_taglist_default(const taglist* list, std::string_view key,
                                     std::string_view def);
std::string_view get_taglist_default_ex(const taglist* list, std::string_view def,
                                        const char* key_pattern, ...)
    __attribute__((format(printf, 3, 4)));
std::string get_taglist_default_dup(const taglist* list, std::string_view key,
                                    std::string_view def);

// --- files and text
// Never null: a file that cannot be opened gives an empty list. A non-empty
// prefix keeps only keys that begin with it.
TaglistPtr load_taglist_ex(const std::string& path, int sorted, const char* prefix);
// Lines are taken only when a line break follows them: a last line without
// one is not taken, and text that begins with a line break gives an empty
// list. Lines are cut to 8191 characters (load_taglist_ex instead takes a
// longer line in 8191-character pieces, each parsed as a line).
TaglistPtr load_taglist_buffer(std::string_view text, int sorted);
// One line parse; nullptr when the line yields nothing.
TagitemPtr parse_tagitem_line(std::string_view line, std::string_view prefix);
void dump_taglist(const taglist* list, std::FILE* stream);
std::string dump_taglist_string(const taglist* list);
// Mode 0: atomic, falling back to direct; 1: atomic only; 2: direct only.
// 1 on success, 0 on failure. The atomic write resolves path (so the file
// must exist; a symbolic link stays and its target is replaced) and renames
// a mkstemp file (mode 0600) beside the resolved path onto it.
int save_taglist(const taglist* list, const std::string& path, int mode);

}  // namespace config
