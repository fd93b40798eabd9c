#include "Listing.h"

#include "Text.h"

#include <algorithm>
#include <map>
#include <set>

#include <sys/ioctl.h>
#include <unistd.h>

using namespace Vesk::Messages;

namespace {

// Of a terminal. Elsewhere a line is as long as an object is, so that searches find whole ones.
std::size_t columns()
{
    winsize size = {};
    if (isatty(STDOUT_FILENO) == 0)
        return SIZE_MAX;
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

// One type for each kind: lists have words for what has names.
Json jsonOf(const Field& field)
{
    if (field.kind == Kind::Flags)
        return field.words;
    const bool inWords = field.kind == Kind::Word || field.kind == Kind::Family || field.kind == Kind::Time ||
                         (field.kind == Kind::Device && !field.words.empty()) || field.kind >= Kind::Address;
    if (!inWords)
        return field.number();
    return field.inWords();
}

std::string typeOf(Kind kind)
{
    switch (kind) {
    case Kind::Flags:
        return "array of words";
    case Kind::Word:
    case Kind::Family:
        return "word";
    case Kind::Time:
        return "time, as 2026-11-22T10:54:44+01:00, or never";
    case Kind::Device:
    case Kind::Text:
        return "text";
    case Kind::Address:
        return "address or prefix";
    case Kind::Bytes:
        return "hexadecimal digits";
    case Kind::Bitmap:
        return "hexadecimal digits, the highest first";
    default:
        return "number";
    }
}

// What is in braces.
std::vector<std::string> namesIn(std::string_view pattern)
{
    std::vector<std::string> names;
    for (std::size_t at = 0; (at = pattern.find('{', at)) != std::string_view::npos; ++at)
        names.emplace_back(pattern.substr(at + 1, pattern.find('}', at) - at - 1));
    return names;
}

std::string counted(std::size_t bytes)
{
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

// An object: a headline, and "name value" of the rest.
struct Entry {
    Json json = Json::object();
    std::string headline;
    std::vector<std::pair<std::string, std::string>> words;

    Entry(const Fields& fields, const std::string& pattern, const std::string& tail, const char* itemPattern)
        : headline(pattern)
    {
        const auto first = namesIn(pattern), last = namesIn(tail);
        for (const std::string& name : first) {
            const Field* const field = fieldOf(fields, name);
            json[name]               = field != nullptr ? jsonOf(*field) : Json();
            const std::size_t at     = headline.find('{' + name + '}');
            headline.replace(at, name.size() + 2, field != nullptr ? visible(field->inWords()) : "?");
        }
        const auto isNamed = [](const auto& names, const Field& field) {
            return std::any_of(names.begin(), names.end(), [&field](const std::string& name) {
                return name.substr(0, name.find('?')) == field.listed;
            });
        };
        std::map<std::pair<std::string, std::size_t>, Fields> groups;
        for (const Field& each : fields)
            if (!each.group.empty()) {
                groups[{each.group, each.item}].push_back(each);
                groups[{each.group, each.item}].back().group.clear();
            } else if (each.kind == Kind::Unknown) {
                addUnknown(each);
            } else if (!each.listed.empty() && !each.usual && each.kind != Kind::Prefix && !isNamed(first, each) &&
                       !isNamed(last, each) && fieldOf(fields, each.listed) == &each) {
                add(each);
            }
        for (const auto& [group, members] : groups) {
            const Entry inner(members, itemPattern, "", "");
            json[group.first].push_back(inner.json);
            words.emplace_back(group.first, inner.headline);
            words.insert(words.end(), inner.words.begin(), inner.words.end());
        }
        for (const std::string& name : last)
            if (const Field* const field = fieldOf(fields, name.substr(0, name.find('?'))))
                if (!field->usual || name.back() != '?')
                    add(*field);
    }

    void add(const Field& field)
    {
        const std::string text = visible(field.inWords());
        const bool isApart     = field.kind == Kind::Text && text.find(' ') != std::string::npos;
        json[field.listed]     = jsonOf(field);
        words.emplace_back(field.listed, isApart ? forShell(text) : text);
    }
    void addUnknown(const Field& field)
    {
        const std::string what = field.where() + ", " + counted(field.valueSize);
        json["unknown"].push_back(what);
        words.emplace_back("unknown", what);
    }
};

} // namespace

void Listing::clear()
{
    answer.findings[style.name] = Json::array();
    answer.text.clear();
}

void Listing::add(const Fields& fields)
{
    const Entry entry(fields, style.headline, style.tail, style.item);
    answer.findings[style.name].push_back(entry.json);
    static const std::size_t width = columns();
    std::size_t column             = entry.headline.size();
    answer.text += bold(entry.headline);
    for (const auto& [name, value] : entry.words) {
        const std::size_t size = 2 + name.size() + 1 + value.size();
        const bool fits        = column + size <= width;
        column                 = fits ? column + size : 4 + size - 2;
        answer.text += (fits ? "  " : "\n    ") + faint(name) + ' ' + value;
    }
    answer.text += '\n';
}

std::string explained(const ListStyle& style, const Fields& listed)
{
    std::string text;
    const auto add = [&text](const std::string& name, const std::string& type) {
        text += padded("  " + name + "  ", 34) + type + '\n';
    };
    for (const Field& each : listed) {
        const std::string name = (each.group.empty() ? "" : each.group + "[].") + each.listed;
        add(name, typeOf(each.kind));
        if (each.kind == Kind::Device)
            add(name + "_index", "number, where there is no such device any more");
    }
    add("unknown", "array of texts");
    return std::string(style.name) + ":\n" + text;
}
