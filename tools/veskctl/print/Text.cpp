#include "Text.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

std::optional<std::int64_t> numberOf(std::string_view text)
{
    const bool hex           = text.starts_with("0x");
    const auto figures       = text.substr(hex ? 2 : 0);
    const char* const end    = figures.data() + figures.size();
    std::int64_t value       = 0;
    const auto [stop, error] = std::from_chars(figures.data(), end, value, hex ? 16 : 10);
    const bool octal         = !hex && figures.size() > 1 && figures[0] == '0';
    return error == std::errc() && stop == end && !octal ? std::optional(value) : std::nullopt;
}

std::string numberFrom(std::int64_t lowest, std::int64_t highest)
{
    return "a number from " + std::to_string(lowest) + " to " + std::to_string(highest) + ", decimal or with 0x";
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string replaced(std::string text, const std::string& old, const std::string& with)
{
    for (std::size_t at = 0; (at = text.find(old, at)) != std::string::npos; at += with.size())
        text.replace(at, old.size(), with);
    return text;
}

namespace {

// How many bytes at a place are one character of UTF-8 to show, and no control character. 0 for any other byte.
std::size_t characterAt(const std::string& text, std::size_t at)
{
    const auto byte        = [&](std::size_t i) { return at + i < text.size() ? text[at + i] & 0xff : 0; };
    const int first        = byte(0);
    const std::size_t size = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    const bool isContinued = [&] {
        for (std::size_t i = 1; i < size; ++i)
            if ((byte(i) & 0xc0) != 0x80)
                return false;
        return true;
    }();
    // The last ones turn the direction of what follows.
    const int last       = first == 0xe2 ? byte(1) << 8 | byte(2) : 0;
    const bool isControl = first < ' ' || first == 0x7f || (first == 0xc2 && byte(1) < 0xa0) || last == 0x808e ||
                           last == 0x808f || (last >= 0x80aa && last <= 0x80ae) || (last >= 0x81a6 && last <= 0x81a9);
    const bool isFirst = first < 0x80 || (first >= 0xc2 && first < 0xf5);
    return isContinued && isFirst && !isControl ? size : 0;
}

} // namespace

std::string visible(const std::string& text)
{
    constexpr const char* figures = "0123456789abcdef";
    std::string to;
    for (std::size_t at = 0; at < text.size();) {
        const auto byte        = static_cast<unsigned char>(text[at]);
        const std::size_t size = characterAt(text, at);
        to += size != 0 ? text.substr(at, size) : std::string{'\\', 'x', figures[byte / 16], figures[byte % 16]};
        at += std::max<std::size_t>(size, 1);
    }
    return to;
}

std::string forShell(const std::string& text)
{
    constexpr const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:@%+,=-";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos)
        return text;
    if (visible(text) != text)
        return "$'" + replaced(visible(replaced(text, "\\", "\\\\")), "'", "\\'") + '\'';
    return '\'' + replaced(text, "'", "'\\''") + '\'';
}

namespace {

std::string painted(const char* code, const std::string& text)
{
    const char* const unwanted = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool plain           = isatty(STDOUT_FILENO) == 0 || (unwanted != nullptr && *unwanted != '\0') ||
                       (terminal != nullptr && std::strcmp(terminal, "dumb") == 0);
    return plain || text.empty() ? text : std::string("\x1b[") + code + 'm' + text + "\x1b[0m";
}

} // namespace

std::string bold(const std::string& text)
{
    return painted("1", text);
}

std::string faint(const std::string& text)
{
    return painted("2", text);
}
