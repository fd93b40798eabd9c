// What a description is made of.
#ifndef VESK_MESSAGES_DESCRIPTION_H
#define VESK_MESSAGES_DESCRIPTION_H

#include "Decode.h"

namespace Vesk::Messages {

// Constants of the kernel. In lists, they go by what is behind the prefix, in small letters.
struct Names {
    struct Name {
        std::uint64_t value;
        const char* constant;
        const char* word = nullptr; // where that is another one
    };
    const char* prefix;
    std::vector<Name> names;
};

struct Structure;
struct Attribute;

// A value, a structure, or attributes again.
struct Format {
    Format(Kind of) : kind(of) {}
    Format(const Names& of, Kind with = Kind::Word) : kind(with), names(&of) {}
    Format(const Structure& of) : structure(&of) {}
    Format(const std::vector<Attribute>& of) : attributes(&of) {}

    Kind kind                                = Kind::Unknown;
    const Names* names                       = nullptr;
    const Structure* structure               = nullptr;
    const std::vector<Attribute>* attributes = nullptr;
};

// `listed` is its name in lists, behind that of what it is in: "mask" in an attribute "mark" is "mark_mask".
struct Member {
    const char* name;
    std::size_t offset, size;
    Format format        = Kind::Number;
    const char* listed   = nullptr;
    std::size_t familyAt = 0; // of an address whose family is not that of the others
};

struct Structure {
    const char* name;
    std::size_t size;
    std::vector<Member> members;
    void (*finish)(std::span<Field> fields) = nullptr; // says what a member means that depends on others
};

struct Attribute {
    int type;
    const char* name;
    Format format        = Kind::Number;
    const char* listed   = nullptr;
    const Member* behind = nullptr; // what follows the structure, up to the end
};

extern const Member kMore; // follows where there may be several structures: an array in lists

struct Message {
    int protocol;
    unsigned int type;
    const char* name;
    const Structure* payload;
    const std::vector<Attribute>* attributes;
};

extern const Structure kHeader;
extern const Names kProtocols, kHeaderFlags, kGetFlags;

// Null where there is none.
const Message* messageOf(int protocol, std::uint64_t type);

} // namespace Vesk::Messages

#endif
