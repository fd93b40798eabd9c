// A walk over a message by its description:
//
//     nlmsghdr | payload | attribute: header, value, padding | attribute ...
//
// A value is a number, a text, an address, a structure, or attributes again.

#include "Decode.h"

#include "Description.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstring>
#include <ctime>
#include <utility>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/pkt_sched.h>

namespace Vesk::Messages {

namespace {

using Bytes = std::span<const unsigned char>;

std::string chained(const std::string& first, const char* between, const std::string& last)
{
    return first.empty() || last.empty() ? first + last : first + between + last;
}

std::uint64_t numberIn(Bytes bytes, bool networkOrder)
{
    const bool lastFirst = networkOrder == (std::endian::native == std::endian::big);
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        number = number << 8 | bytes[lastFirst ? bytes.size() - 1 - i : i];
    return number;
}

// "2026-11-22T10:54:44+01:00"
std::string timeText(std::uint64_t seconds)
{
    const auto time       = static_cast<std::time_t>(seconds);
    std::tm local         = {};
    char text[32]         = {};
    const bool isTime     = localtime_r(&time, &local) != nullptr; // not in a year beyond the type's
    const std::size_t end = isTime ? std::strftime(text, sizeof text, "%FT%T%z", &local) : 0;
    return end < 3 ? std::to_string(seconds) : std::string(text).insert(end - 2, ":");
}

// "1:", "1:2", as tc(8) has it
std::string handleText(std::uint64_t handle)
{
    if (handle == TC_H_ROOT)
        return "root";
    const std::string major = hexadecimal(handle >> 16).substr(2), minor = hexadecimal(handle & 0xffff).substr(2);
    return handle == 0 ? "none" : major + ':' + (minor == "0" ? "" : minor);
}

std::string bare(const Names& names, const Name& name)
{
    return name.constant.starts_with(names.prefix) ? name.constant.substr(std::strlen(names.prefix)) : name.constant;
}

std::string wordOf(const Names& names, const Name& name)
{
    std::string word = name.word != nullptr ? name.word : bare(names, name);
    for (char& each : word)
        each = each == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(each)));
    return word;
}

void nameFlags(Field& field, std::uint64_t flags, const Names& names)
{
    for (const Name& each : names.names)
        if ((flags & each.value) == each.value) {
            field.text = chained(field.text, " ", bare(names, each));
            field.words.push_back(wordOf(names, each));
            flags &= ~each.value;
        }
    field.unnamed = flags != 0;
    if (field.unnamed)
        field.words.push_back(hexadecimal(flags));
    if (field.unnamed || field.text.empty())
        field.text = chained(field.text, " ", hexadecimal(flags));
}

void nameValue(Field& field, std::uint64_t value, const Names& names)
{
    const auto found =
        std::find_if(names.names.begin(), names.names.end(), [value](const Name& each) { return each.value == value; });
    field.unnamed = found == names.names.end();
    field.text    = field.unnamed ? std::to_string(value) : found->constant;
    field.words   = {field.unnamed ? field.text : wordOf(names, *found)};
}

std::string nameOf(const Names& names, int value)
{
    Field field;
    nameValue(field, static_cast<std::uint64_t>(value), names);
    return field.text;
}

void readNumber(Field& field, const Format& format, Bytes bytes)
{
    const bool networkOrder    = field.kind == Kind::Big || field.kind == Kind::BigHex || field.kind == Kind::BigMask;
    const std::uint64_t number = numberIn(bytes, networkOrder), all = UINT64_MAX >> (64 - 8 * bytes.size());
    field.value = number;
    field.usual = number == 0 || field.kind == Kind::Family; // which the addresses show
    if (field.kind == Kind::Limit || field.kind == Kind::Mask || field.kind == Kind::BigMask)
        field.usual = number == all;
    if (field.kind == Kind::Flags)
        nameFlags(field, number, *format.names);
    else if (format.names != nullptr)
        nameValue(field, number, *format.names);
    else if (field.kind == Kind::Limit && number == all)
        field.text = "no limit";
    else if (field.kind == Kind::Time)
        field.text = number == 0 ? "never" : timeText(number);
    else if (field.kind == Kind::Handle)
        field.text = handleText(number);
    else if (field.kind == Kind::Number || field.kind == Kind::Limit || field.kind == Kind::Big ||
             field.kind == Kind::Device || field.kind == Kind::Prefix)
        field.text = std::to_string(number);
    else
        field.text = hexadecimal(number);
}

// What a field is in.
struct Place {
    std::string part, name = {}, listed = {}, group = {}; // `name` and `listed` are those of a structure around it
    std::uint64_t family = AF_UNSPEC;
    std::size_t item     = 0;
};

class Walk {
public:
    explicit Walk(Bytes given) : message(given) {}

    Fields all(int protocol)
    {
        Place place = {.part = kHeader.name};
        if (message.size() < sizeof(nlmsghdr)) {
            rest(place, message.size());
            return fields;
        }
        structure(place, kHeader);
        const auto type         = fields[1].number();
        const auto flags        = fields[2].number();
        const auto* const known = messageOf(protocol, type);
        const std::string name  = known != nullptr ? known->name : std::to_string(type);
        fields[1].text          = name;
        fields[1].unnamed       = known == nullptr;
        fields[2].text.clear();
        nameFlags(fields[2], flags, known != nullptr ? *known->flags : kHeaderFlags);

        const std::size_t end = std::min<std::size_t>(fields[0].number(), message.size());
        place                 = {.part = "payload"};
        if (known != nullptr && known->payload != nullptr && at + known->payload->size <= end) {
            place.part   = known->payload->name;
            place.family = familyIn(*known->payload, at);
            structure(place, *known->payload);
        }
        if (known != nullptr && known->attributes != nullptr)
            attributes({.part = "", .family = place.family}, *known->attributes, end);
        rest({.part = "rest"}, message.size());
        for (const Field& length : fields)
            for (Field& each : fields)
                if (length.kind == Kind::Prefix && each.kind == Kind::Address && each.listed == length.listed &&
                    each.group == length.group) {
                    each.prefix = static_cast<int>(length.number());
                    each.usual &= length.usual;
                }
        return fields;
    }

private:
    Field& add(const Place& place, const std::string& name, Kind kind, std::size_t end)
    {
        Field field;
        field.part  = place.part;
        field.name  = place.name + name;
        field.group = place.group;
        field.item  = place.item;
        field.kind  = kind;
        field.at = field.valueAt = at;
        field.size = field.valueSize = end - at;
        at                           = end;
        return fields.emplace_back(std::move(field));
    }
    void padding(const Place& place, std::size_t end)
    {
        if (at < end)
            add(place, "(padding)", Kind::Padding, end).usual = true;
    }
    void rest(const Place& place, std::size_t end)
    {
        if (at < end)
            read(add(place, "", Kind::Unknown, end), Kind::Unknown, place.family);
    }

    void read(Field& field, const Format& format, std::uint64_t family) const
    {
        if (field.kind == Kind::Key)
            return;
        const Bytes value       = message.subspan(field.valueAt, field.valueSize);
        const auto* const first = reinterpret_cast<const char*>(value.data());
        const bool isNumber     = field.kind < Kind::Address && !value.empty() && value.size() <= sizeof(std::uint64_t);
        if (isNumber)
            return readNumber(field, format, value);
        field.usual = isZero(value);
        if (field.kind == Kind::Address && family == AF_UNSPEC && field.usual)
            field.text = "any";
        else if (field.kind == Kind::Address)
            field.text = family == AF_INET && value.size() >= 4 ? addressText(value.data(), 4)
                                                                : addressText(value.data(), value.size());
        else if (field.kind == Kind::Text)
            field.text.assign(first, strnlen(first, value.size()));
        else if (field.kind == Kind::Bitmap && value.size() % 4 == 0)
            for (std::size_t end = value.size(); end != 0; end -= 4) {
                const std::uint32_t word =
                    htonl(static_cast<std::uint32_t>(numberIn(value.subspan(end - 4, 4), false)));
                field.text = chained(field.text, " ", digits(reinterpret_cast<const unsigned char*>(&word), 4));
            }
        else
            field.text = digits(value.data(), value.size());
        field.value = field.text;
    }

    // Its own, or that of the first structure in it that has one, or the one around it.
    [[nodiscard]] std::uint64_t familyIn(const Structure& s, std::size_t start, std::uint64_t around = AF_UNSPEC) const
    {
        std::uint64_t own = AF_UNSPEC;
        for (const Member& each : s.members)
            if (each.format.kind == Kind::Family)
                own = numberIn(message.subspan(start + each.offset, each.size), false);
        for (const Member& each : s.members)
            if (own == AF_UNSPEC && around == AF_UNSPEC && each.format.structure != nullptr)
                own = familyIn(*each.format.structure, start + each.offset);
        return own != AF_UNSPEC ? own : around;
    }

    // All of it has to be there.
    void structure(Place place, const Structure& s)
    {
        const std::size_t start = at, first = fields.size();
        place.family = familyIn(s, start, place.family);
        for (const Member& each : s.members) {
            padding(place, start + each.offset);
            const std::string name = each.listed == nullptr ? "" : chained(place.listed, "_", each.listed);
            if (each.format.structure != nullptr) {
                Place inner  = place;
                inner.name   = place.name + each.name + '.';
                inner.listed = name;
                structure(inner, *each.format.structure);
                continue;
            }
            const auto family =
                each.familyAt == 0 ? place.family : numberIn(message.subspan(start + each.familyAt, 2), false);
            Field& field = add(place, each.name, each.format.kind, start + each.offset + each.size);
            field.listed = name;
            read(field, each.format, family);
        }
        padding(place, start + s.size);
        if (s.finish != nullptr)
            s.finish(std::span(fields).subspan(first));
    }

    void attributes(const Place& around, const std::vector<Attribute>& known, std::size_t end)
    {
        while (at + NLA_HDRLEN <= end) {
            nlattr header;
            std::memcpy(&header, message.data() + at, sizeof header);
            if (header.nla_len < NLA_HDRLEN || header.nla_len > end - at)
                break;
            const int type         = header.nla_type & NLA_TYPE_MASK;
            const std::size_t stop = at + header.nla_len, next = std::min(at + NLA_ALIGN(header.nla_len), end);
            const auto found =
                std::find_if(known.begin(), known.end(), [type](const Attribute& each) { return each.type == type; });
            Place place = {.part   = chained(around.part, " ", "attribute " + std::to_string(type)),
                           .family = around.family};
            if (found != known.end()) {
                place.part   = found->name;
                place.listed = found->listed != nullptr ? found->listed : "";
                attribute(place, *found, stop, next);
            } else {
                value(place, Kind::Unknown, stop, next);
            }
        }
        rest({.part = chained(around.part, " ", "rest")}, end);
    }

    void value(const Place& place, const Format& format, std::size_t stop, std::size_t next)
    {
        const std::size_t size = stop - at - NLA_HDRLEN;
        const bool isNumber    = format.kind < Kind::Address && size != 0 && size <= sizeof(std::uint64_t);
        Field& field = add(place, "", format.kind < Kind::Address && !isNumber ? Kind::Unknown : format.kind, next);
        field.listed = place.listed;
        field.valueAt += NLA_HDRLEN;
        field.valueSize = size;
        read(field, format, place.family);
    }

    void attribute(Place place, const Attribute& known, std::size_t stop, std::size_t next)
    {
        if (known.format.structure == nullptr && known.format.attributes == nullptr)
            return value(place, known.format, stop, next);
        Field& head = add(place, "nla_len, nla_type", Kind::Header, at + NLA_HDRLEN);
        head.value  = numberIn(message.subspan(head.at, 2), false);
        head.text   = std::to_string(head.number()) + " bytes";
        if (known.format.attributes != nullptr) {
            attributes(place, *known.format.attributes, stop);
            return padding(place, next);
        }
        const bool several = known.behind == &kMore;
        if (several)
            place.group = std::exchange(place.listed, "");
        do {
            if (at + known.format.structure->size <= stop) {
                place.family = familyIn(*known.format.structure, at, place.family);
                structure(place, *known.format.structure);
            }
            ++place.item;
        } while (several && at + known.format.structure->size <= stop);
        if (known.behind != nullptr && !several && at < stop) {
            Field& behind = add(place, known.behind->name, known.behind->format.kind, stop);
            behind.listed = known.behind->listed != nullptr ? known.behind->listed : "";
            read(behind, known.behind->format, place.family);
        }
        place.group.clear();
        rest(place, stop);
        padding(place, next);
    }

    const Bytes message;
    std::size_t at = 0;
    Fields fields;
};

void addListed(Fields& all, const Format& format, Field outer)
{
    if (format.structure != nullptr)
        for (const Member& each : format.structure->members) {
            Field inner  = outer;
            inner.listed = each.listed == nullptr ? "" : chained(outer.listed, "_", each.listed);
            addListed(all, each.format, inner);
        }
    else if (format.kind != Kind::Prefix && !outer.listed.empty() &&
             std::none_of(all.begin(), all.end(), [&](const Field& each) {
                 return each.group == outer.group && each.listed == outer.listed;
             })) {
        outer.kind = format.names != nullptr && format.kind != Kind::Flags ? Kind::Word : format.kind;
        all.push_back(outer);
    }
}

} // namespace

Fields decode(int protocol, std::span<const unsigned char> message)
{
    return Walk(message).all(protocol);
}

std::uint64_t Field::number() const
{
    const auto* const known = std::get_if<std::uint64_t>(&value);
    return known != nullptr ? *known : 0;
}

std::string Field::inWords() const
{
    return !words.empty()                 ? joined(words, " ")
           : prefix >= 0 && text != "any" ? text + '/' + std::to_string(prefix)
                                          : text;
}

const Field* fieldOf(const Fields& fields, std::string_view name)
{
    const auto found = std::find_if(fields.rbegin(), fields.rend(), [name](const Field& each) {
        return each.group.empty() && each.kind != Kind::Prefix &&
               (each.listed == name || (each.part == name && each.name.empty()));
    });
    return found != fields.rend() ? &*found : nullptr;
}

Fields listed(int protocol, unsigned int type)
{
    Fields all;
    const Message* const message = messageOf(protocol, type);
    addListed(all, *message->payload, {});
    for (const Attribute& each : *message->attributes) {
        Field outer;
        (each.behind == &kMore ? outer.group : outer.listed) = each.listed != nullptr ? each.listed : "";
        addListed(all, each.format, outer);
        if (each.behind != nullptr && each.behind->listed != nullptr) {
            outer.listed = each.behind->listed;
            addListed(all, each.behind->format, outer);
        }
    }
    return all;
}

std::map<std::string, std::uint64_t> ipProtocols()
{
    std::map<std::string, std::uint64_t> all;
    for (const Name& each : ipProtocolNames().names)
        all.emplace(wordOf(ipProtocolNames(), each), each.value);
    return all;
}

std::string protocolName(int protocol)
{
    return nameOf(kProtocols, protocol);
}

std::string errorName(int number)
{
    return nameOf(kErrors, number);
}

std::string hexadecimal(std::uint64_t value)
{
    constexpr const char* figures = "0123456789abcdef";
    std::string text;
    do
        text.insert(text.begin(), figures[value % 16]);
    while ((value /= 16) != 0);
    return "0x" + text;
}

std::string digits(const unsigned char* bytes, std::size_t size)
{
    constexpr const char* figures = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0 && i % 4 == 0)
            text += ' ';
        text += {figures[bytes[i] / 16], figures[bytes[i] % 16]};
    }
    return text;
}

bool isZero(Bytes bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char each) { return each == 0; });
}

std::string addressText(const void* bytes, std::size_t size)
{
    char text[INET6_ADDRSTRLEN] = {};
    const int family            = size == sizeof(in_addr) ? AF_INET : size == sizeof(in6_addr) ? AF_INET6 : AF_UNSPEC;
    if (inet_ntop(family, bytes, text, sizeof text) == nullptr)
        return digits(static_cast<const unsigned char*>(bytes), size);
    return text;
}

} // namespace Vesk::Messages
