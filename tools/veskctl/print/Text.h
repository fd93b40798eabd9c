// How words, numbers and lines are shown.
#ifndef VESKCTL_TEXT_H
#define VESKCTL_TEXT_H

#include <Decode.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A number as people write it, decimal or hexadecimal with 0x; nothing else is one. What begins with 0 would be octal
// to some.
std::optional<std::int64_t> numberOf(std::string_view text);

using Vesk::Messages::addressText;
using Vesk::Messages::digits;
using Vesk::Messages::errorName;
using Vesk::Messages::hexadecimal;
using Vesk::Messages::isZero;
using Vesk::Messages::joined;

// "a number from 0 to 32, decimal or with 0x", for what has to be written.
std::string numberFrom(std::int64_t lowest, std::int64_t highest);

// With spaces behind it, up to a width.
std::string padded(std::string text, std::size_t width);

// With each occurrence of a piece replaced.
std::string replaced(std::string text, const std::string& old, const std::string& with);

// As it is shown to people: control characters, which a name may hold, and what is no UTF-8, as \x1b.
std::string visible(const std::string& text);

// As a word of a shell's command line.
std::string forShell(const std::string& text);

// Bold or faint when standard output is a terminal that is to have colours; else the text as it is.
std::string bold(const std::string& text);
std::string faint(const std::string& text);

#endif
