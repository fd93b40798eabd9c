// What a description is made of.
#ifndef VESK_MESSAGES_DESCRIPTION_H
#define VESK_MESSAGES_DESCRIPTION_H

#include "Decode.h"

namespace Vesk::Messages {

struct Name {
    std::uint64_t value;
    std::string constant;
    const char* word = nullptr;
};

// Constants of the kernel. In lists, they go by what is behind the prefix, in small letters, or by a word of their own.
struct Names {
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

// Its name in lists stands behind that of what it is in: "source" in "selected" is "selected_source".
struct Member {
    const char* name;
    std::size_t offset, size;
    Format format;
    const char* listed;   // null where lists leave it out
    std::size_t familyAt; // of an address whose family is not that of the others, or 0

    Member(const char* is, std::size_t from, std::size_t bytes, const Format& of = Kind::Number,
           const char* inLists = nullptr, std::size_t family = 0)
        : name(is), offset(from), size(bytes), format(of), listed(inLists), familyAt(family)
    {}
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
    Format format;
    const char* listed;   // null where lists leave it out, or its structure's members have names that need no other
    const Member* behind; // what follows the structure, up to the end; or null

    Attribute(int of, const char* is, const Format& made = Kind::Number, const char* inLists = nullptr,
              const Member* follows = nullptr)
        : type(of), name(is), format(made), listed(inLists), behind(follows)
    {}
};

extern const Member kMore; // follows where there may be several structures: an array in lists

extern const Structure kHeader;
const Names& ipProtocolNames(); // also while the tables of another source are made
extern const Names kProtocols, kErrors, kHeaderFlags, kGetFlags;

struct Message {
    int protocol;
    unsigned int type;
    const char* name;
    const Structure* payload;
    const std::vector<Attribute>* attributes;
    const Names* flags = &kHeaderFlags; // their bits mean one thing in a request to get, another in the others
};

// Null where there is none.
const Message* messageOf(int protocol, std::uint64_t type);

} // namespace Vesk::Messages

#endif
