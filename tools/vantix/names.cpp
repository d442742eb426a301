#include "names.h"

#include <cstring>
#include <vector>

#include "args.h"
#include "names_table.h"

namespace vtool {

namespace {

constexpr bool sameText(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

constexpr bool tableHasGroup(const char* group) {
  for (const NameRow& row : kNameRows) {
    if (sameText(row.group, group)) return true;
  }
  return false;
}

// A table that lost one of these groups would make every value of an option
// unknown; the build stops instead.
static_assert(tableHasGroup(kInterpNames), "names.tsv has no 'interp' rows");
static_assert(tableHasGroup(kAlgorithmNames), "names.tsv has no 'algorithm' rows");
static_assert(tableHasGroup(kOrderNames), "names.tsv has no 'order' rows");
static_assert(tableHasGroup(kPatternNames), "names.tsv has no 'pattern' rows");
static_assert(tableHasGroup(kEdfKindNames), "names.tsv has no 'edf_kind' rows");
static_assert(tableHasGroup(kBackgroundNames), "names.tsv has no 'background' rows");

std::vector<std::string> aliasesOf(const NameRow& row) {
  std::vector<std::string> aliases;
  std::string current;
  for (const char* c = row.aliases;; ++c) {
    if (*c == ',' || *c == '\0') {
      if (!current.empty()) aliases.push_back(current);
      current.clear();
      if (*c == '\0') break;
    } else {
      current += *c;
    }
  }
  return aliases;
}

}  // namespace

uint32_t parseName(const char* group, const std::string& text, const std::string& what) {
  for (const NameRow& row : kNameRows) {
    if (std::strcmp(row.group, group) != 0) continue;
    if (equalsIgnoringCase(text, row.name)) return row.value;
    for (const std::string& alias : aliasesOf(row)) {
      if (equalsIgnoringCase(text, alias)) return row.value;
    }
  }
  throwUsage(what + " must be " + nameChoices(group) + ", not '" + text + "'");
}

std::string nameOf(const char* group, uint32_t value) {
  for (const NameRow& row : kNameRows) {
    if (std::strcmp(row.group, group) == 0 && row.value == value) return row.name;
  }
  return std::to_string(value);
}

std::string nameChoices(const char* group) {
  std::vector<std::string> names, aliases;
  for (const NameRow& row : kNameRows) {
    if (std::strcmp(row.group, group) != 0) continue;
    names.push_back(row.name);
    for (const std::string& alias : aliasesOf(row)) {
      // Aliases that differ from a name in case only add nothing here.
      if (!equalsIgnoringCase(alias, row.name)) aliases.push_back(alias);
    }
  }
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
  }
  if (!aliases.empty()) {
    text += " (also ";
    for (size_t i = 0; i < aliases.size(); ++i) text += (i == 0 ? "" : ", ") + aliases[i];
    text += ")";
  }
  return text;
}

}  // namespace vtool
