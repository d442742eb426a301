// The names the tool accepts for the library's numeric choices (resize
// interpolation, demosaic algorithm, channel order and Bayer pattern, EDF
// fuser kind, stitch canvas background).  They come from the table the
// Python package reads too, python/vantix/names.tsv, compiled in as a
// generated header, so both front ends take the same words.
#pragma once

#include <cstdint>
#include <string>

namespace vtool {

// Groups of the table the tool uses.
inline constexpr char kInterpNames[] = "interp";
inline constexpr char kAlgorithmNames[] = "algorithm";
inline constexpr char kOrderNames[] = "order";
inline constexpr char kPatternNames[] = "pattern";
inline constexpr char kEdfKindNames[] = "edf_kind";
inline constexpr char kBackgroundNames[] = "background";

// The value of `text`, a name or an alias of `group` (case ignored).
// Throws UsageError naming the option `what` and listing the choices.
uint32_t parseName(const char* group, const std::string& text, const std::string& what);

// The name of `value` in `group` (its first row), or the number in decimal.
std::string nameOf(const char* group, uint32_t value);

// "nearest, linear, ... or auto", with the aliases in brackets after the
// list: "bilinear, vng or edge_aware (also ea)".  For messages.
std::string nameChoices(const char* group);

}  // namespace vtool
