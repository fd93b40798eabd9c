#include "RecordFile.h"

#include "print/Text.h"

#include <netlink/Wipe.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <map>
#include <span>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr rlimit kNoCore             = {0, 0};
constexpr std::size_t kLargestFile   = 65536;
constexpr std::uint32_t kSmallestSPI = 256; // those below are reserved
constexpr std::uint32_t kCBC = 1, kCTR = 2;

// A word for a code. Of an algorithm, also the lengths that its keys have, in bytes; of AES, the mode.
struct Word {
    const char* word;
    std::vector<std::uint32_t> codes;
    std::vector<std::size_t> keys = {};
    std::uint32_t mode            = 0;
};
using Words = std::vector<Word>;

const Words kProtocols = {{"ah", {kAH}}, {"esp", {kESP}}};
const Words kModes     = {{"tunnel", {kTunnel}}, {"transport", {2}}};
const Words kAESModes  = {{"cbc", {kCBC}}, {"ctr", {kCTR}}};
const Words kCiphers   = {{"des-cbc", {9}, {8}},
                          {"3des-cbc", {10}, {24}},
                          {"aes-cbc", {12, 19}, {16, 24, 32}, kCBC},
                          {"aes-ctr", {12, 19}, {20, 28, 36}, kCTR}};
const Words kHashes    = {{"hmac-md5", {7}, {16}},     {"hmac-sha1", {5}, {20}},    {"hmac-sha256", {6}, {32}},
                          {"hmac-sha384", {20}, {48}}, {"hmac-sha512", {21}, {64}}, {"aes-xcbc", {12}, {16}}};

// "16, 24 or 32"
template <typename Number>
std::string either(const std::vector<Number>& numbers)
{
    std::string text;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        text += (i == 0 ? "" : i + 1 == numbers.size() ? " or " : ", ") + std::to_string(numbers[i]);
    return text;
}

// "ah (2), esp (3)"
std::string listed(const Words& words)
{
    return joined(words, ", ",
                  [](const Word& each) { return std::string(each.word) + " (" + either(each.codes) + ')'; });
}

// The word for a code in a mode; null when there is none.
const Word* wordFor(const Words& words, std::uint32_t code, std::uint32_t mode)
{
    const auto found = std::find_if(words.begin(), words.end(), [&](const Word& each) {
        return std::count(each.codes.begin(), each.codes.end(), code) != 0 && (each.mode == 0 || each.mode == mode);
    });
    return found == words.end() ? nullptr : &*found;
}

std::uint32_t modeOf(const Record& record)
{
    return record.aes_mode_valid != 0 ? record.aes_mode : kCBC;
}

const Word* cipherOf(const Record& record)
{
    return record.crypto_algo_valid != 0 ? wordFor(kCiphers, record.crypto_algo, modeOf(record)) : nullptr;
}

const Word* hashOf(const Record& record)
{
    return record.hash_algo_valid != 0 ? wordFor(kHashes, record.hash_algo, 0) : nullptr;
}

// The fields

// A record that is being read.
struct Reading {
    Record& record;
    std::uint32_t impliedMode = 0; // by a cipher's word
};

// What to write instead. The value is not shown: it may be a key.
struct Wrong : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A field of the record, by its place there. What it holds shows in its size, if it has no words.
struct Field {
    const char* name;
    std::size_t valid, at, size;
    unsigned neededFor; // Purposes
    const char* meaning;
    std::uint32_t lowest = 0, highest = 0; // of a number
    const Words* words = nullptr;

    [[nodiscard]] bool isAddress() const { return size == sizeof(tro_ip_addr_type_v01); }
    [[nodiscard]] bool isKey() const { return size > sizeof(tro_ip_addr_type_v01); } // its length lies before it
    [[nodiscard]] const std::uint8_t* in(const Record& record) const
    {
        return reinterpret_cast<const std::uint8_t*>(&record) + at;
    }
    [[nodiscard]] std::uint8_t* in(Record& record) const { return reinterpret_cast<std::uint8_t*>(&record) + at; }
    [[nodiscard]] bool isIn(const Record& record) const
    {
        return in(record)[static_cast<std::ptrdiff_t>(valid) - static_cast<std::ptrdiff_t>(at)] != 0;
    }
    [[nodiscard]] std::span<const std::uint8_t> keyIn(const Record& record) const
    {
        std::uint32_t length = 0;
        std::memcpy(&length, in(record) - sizeof length, sizeof length);
        return {in(record), length};
    }
};
static_assert(offsetof(Record, crypto_key_rx_len) + 4 == offsetof(Record, crypto_key_rx));
static_assert(offsetof(Record, hash_key_tx_len) + 4 == offsetof(Record, hash_key_tx));

constexpr unsigned kIdentity = ForStates | ForRemoval | ForPolicies;
constexpr unsigned kAlways   = kIdentity | ForMigration;

#define FIELD(name) #name, offsetof(Record, name##_valid), offsetof(Record, name), sizeof(Record::name)

const std::vector<Field> kFields = {
    {FIELD(spi_rx), kIdentity, "SPI of the incoming SA, from 256 on", kSmallestSPI, UINT32_MAX},
    {FIELD(spi_tx), kIdentity, "SPI of the outgoing SA, from 256 on", kSmallestSPI, UINT32_MAX},
    {FIELD(ipsec_protocol), kAlways, "IPsec protocol; mainline kernels refuse SAs of AH", 0, 0, &kProtocols},
    {FIELD(encap_mode), kAlways & ~ForRemoval, "mode", 0, 0, &kModes},
    {FIELD(remote_addr), kAlways, "the peer's address, IPv4 or IPv6"},
    {FIELD(local_addr), kAlways, "this end's address, of the same family"},
    {FIELD(hash_algo), ForStates, "integrity algorithm", 0, 0, &kHashes},
    {FIELD(crypto_algo), ForStates, "cipher; AES by its code is in the mode of aes_mode", 0, 0, &kCiphers},
    {FIELD(crypto_key_rx), ForStates, "cipher key of the incoming SA, in hexadecimal"},
    {FIELD(crypto_key_tx), ForStates, "cipher key of the outgoing SA, in hexadecimal"},
    {FIELD(udp_encap), 0, "1: ESP goes in UDP, 0: it does not", 0, 1},
    {FIELD(aes_mode), 0, "mode of AES; cbc when missing", 0, 0, &kAESModes},
    {FIELD(udp_encap_port), 0, "this end's UDP port; the peer's is 4500", 1, UINT16_MAX},
    {FIELD(hash_key_rx), ForStates, "integrity key of the incoming SA, in hexadecimal"},
    {FIELD(hash_key_tx), ForStates, "integrity key of the outgoing SA, in hexadecimal"},
};

#undef FIELD

std::uint32_t numberFor(const Field& field, std::string_view text, Reading& reading)
{
    const auto number = numberOf(text);
    if (field.words == nullptr) {
        if (number && *number >= field.lowest && *number <= field.highest)
            return static_cast<std::uint32_t>(*number);
        throw Wrong("write a number from " + std::to_string(field.lowest) + " to " + std::to_string(field.highest) +
                    ", decimal or with 0x");
    }
    for (const Word& each : *field.words)
        if (number ? std::count(each.codes.begin(), each.codes.end(), *number) != 0 : text == each.word) {
            if (!number && each.mode != 0)
                reading.impliedMode = each.mode;
            return number ? static_cast<std::uint32_t>(*number) : each.codes[0];
        }
    throw Wrong("write one of " + listed(*field.words));
}

tro_ip_addr_type_v01 addressFor(std::string_view given)
{
    tro_ip_addr_type_v01 address = {};
    const std::string text(given);
    in_addr v4 = {};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        const std::uint32_t word = ntohl(v4.s_addr); // the record keeps IPv4 addresses in host order
        address                  = {4, sizeof word, {}};
        std::memcpy(address.addr, &word, sizeof word);
    } else if (inet_pton(AF_INET6, text.c_str(), address.addr) == 1) {
        address.ip_type  = 6;
        address.addr_len = sizeof address.addr;
    } else {
        throw Wrong("write an address, such as 192.0.2.1 or 2001:db8::1");
    }
    return address;
}

void setKey(const Field& field, std::string_view text, Record& record)
{
    const auto length = static_cast<std::uint32_t>(text.size() / 2);
    bool right        = text.size() % 2 == 0 && length <= field.size;
    for (std::size_t i = 0; right && i < length; ++i) {
        const char* const first = text.data() + 2 * i;
        right                   = std::from_chars(first, first + 2, field.in(record)[i], 16).ptr == first + 2;
    }
    if (!right)
        throw Wrong("write whole bytes, two hexadecimal digits each");
    std::memcpy(field.in(record) - sizeof length, &length, sizeof length);
}

void set(const Field& field, std::string_view text, Reading& reading)
{
    Record& record = reading.record;
    if (field.isKey()) {
        setKey(field, text, record);
    } else if (field.isAddress()) {
        const auto address = addressFor(text);
        std::memcpy(field.in(record), &address, sizeof address);
    } else {
        const std::uint32_t number = numberFor(field, text, reading);
        const auto port            = htons(static_cast<std::uint16_t>(number));
        const auto flag            = static_cast<std::uint8_t>(number);
        const void* const value = field.size == 1 ? &flag : field.size == 2 ? &port : static_cast<const void*>(&number);
        std::memcpy(field.in(record), value, field.size);
    }
    field.in(record)[static_cast<std::ptrdiff_t>(field.valid) - static_cast<std::ptrdiff_t>(field.at)] = 1;
}

std::string fieldName(const Field& field)
{
    return field.name;
}

// The file

std::string titleOf(const std::string& path)
{
    return path == "-" ? "standard input" : path;
}

// The text of a file, with keys: wiped at the end, and of one size, so that no copy is left behind.
class Text {
public:
    Text() : text(kLargestFile, '\0') {}
    ~Text() { Vesk::wipe(text.data(), text.size()); }
    Text(const Text&)            = delete;
    Text& operator=(const Text&) = delete;

    void read(const std::string& path, std::vector<std::string>& warnings)
    {
        const int already    = openedAlready(path);
        const int descriptor = already >= 0 ? already : open(path.c_str(), O_RDONLY | O_CLOEXEC);
        // Not before it is open: an ordinary user's /proc/self/fd would be closed to itself.
        const bool safe = prctl(PR_SET_DUMPABLE, 0) == 0 && setrlimit(RLIMIT_CORE, &kNoCore) == 0;
        const std::string error =
            descriptor < 0 || !safe ? unreadable() : readFrom(descriptor, titleOf(path), warnings);
        if (already < 0 && descriptor >= 0)
            close(descriptor);
        if (!error.empty())
            throw Refusal(titleOf(path) + ": " + error);
    }
    [[nodiscard]] std::string_view view() const { return {text.data(), size}; }

private:
    static std::string unreadable() { return std::string("cannot be read: ") + std::strerror(errno); }

    // Standard input, or what a shell hands over as /dev/fd/63; -1 for any other path.
    static int openedAlready(const std::string& path)
    {
        const bool handedOver = path.starts_with("/dev/fd/");
        const auto number     = handedOver ? numberOf(path.substr(std::strlen("/dev/fd/"))) : std::nullopt;
        return path == "-" || path == "/dev/stdin" ? STDIN_FILENO : number ? static_cast<int>(*number) : -1;
    }

    // The file that is looked at is the one that is read. Only a file has a mode that says who else may read it.
    std::string readFrom(int descriptor, const std::string& title, std::vector<std::string>& warnings)
    {
        struct stat about = {};
        if (fstat(descriptor, &about) != 0)
            return unreadable();
        if (S_ISREG(about.st_mode) && (about.st_mode & (S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH)) != 0)
            return "holds keys, but others may read or write it; chmod 600 it, or a copy";
        if (S_ISREG(about.st_mode) && geteuid() == 0 && about.st_uid != 0)
            warnings.push_back(title + ": belongs to user " + std::to_string(about.st_uid) + ", who can change it");
        ssize_t got = 0;
        while ((got = ::read(descriptor, text.data() + size, text.size() - size)) > 0)
            size += static_cast<std::size_t>(got);
        if (got < 0)
            return unreadable();
        if (size == text.size())
            return "too long for a record";
        return view().find('\0') == std::string_view::npos ? "" : "no text; write a record as one, see record explain";
    }

    std::string text;
    std::size_t size = 0;
};

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

// All that is wrong with a file.
class Problems {
public:
    explicit Problems(const std::string& path) : file(titleOf(path)) {}

    void add(const std::string& what, std::size_t line = 0)
    {
        all.push_back(file + (line != 0 ? ':' + std::to_string(line) : "") + ": " + what);
    }
    void report() const
    {
        if (!all.empty())
            throw Refusal(joined(all, "\n"));
    }

private:
    std::string file;
    std::vector<std::string> all;
};

using Lines = std::map<std::string, std::size_t>; // where a name was given

// What is no name of the record may be a key in the wrong place; only what reads like a name is shown.
std::string unknown(std::string_view name)
{
    const bool wordLike =
        name.size() <= 20 && name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string_view::npos;
    return wordLike && !name.empty()
               ? "unknown name: " + std::string(name) + "; one of " + joined(kFields, ", ", fieldName)
               : "no line of the form \"name = value\"; veskctl record explain shows the names";
}

void readLine(std::string_view line, std::size_t number, Reading& reading, Lines& lines, Problems& problems)
{
    line = trimmed(line.substr(0, line.find_first_of(";#")));
    if (line.empty())
        return;
    const std::size_t sign = line.find('=');
    const auto name        = trimmed(line.substr(0, sign));
    const auto field = std::find_if(kFields.begin(), kFields.end(), [&](const Field& f) { return name == f.name; });
    if (sign == std::string_view::npos || field == kFields.end())
        return problems.add(unknown(sign == std::string_view::npos ? "" : name), number);
    const auto [given, first] = lines.emplace(field->name, number);
    if (!first)
        return problems.add(
            std::string(name) + ": given in line " + std::to_string(given->second) + " too; write it once", number);
    try {
        set(*field, trimmed(line.substr(sign + 1)), reading);
    } catch (const Wrong& wrong) {
        problems.add(std::string(name) + ": " + wrong.what(), number);
    }
}

// What an address is, that no end of a tunnel is; null for all others.
const char* unusable(const tro_ip_addr_type_v01& address)
{
    in6_addr v6 = {};
    std::memcpy(&v6, address.addr, sizeof v6);
    std::uint32_t v4 = 0;
    std::memcpy(&v4, address.addr, sizeof v4);
    const bool is4 = address.ip_type == 4;
    if (is4 ? v4 == INADDR_ANY : IN6_IS_ADDR_UNSPECIFIED(&v6) != 0)
        return "no address";
    if (is4 ? v4 >> 24 == IN_LOOPBACKNET : IN6_IS_ADDR_LOOPBACK(&v6) != 0)
        return "a loopback address";
    if (is4 ? v4 >= INADDR_UNSPEC_GROUP : IN6_IS_ADDR_MULTICAST(&v6) != 0)
        return "a multicast or broadcast address";
    return nullptr;
}

// What is wrong with a value by itself, or nothing.
std::string mistakeIn(const Record& r, const Field& field, Purpose purpose)
{
    if (field.isAddress() && purpose != ForRemoval) { // what is installed all the same must be possible to remove
        tro_ip_addr_type_v01 address = {};
        std::memcpy(&address, field.in(r), sizeof address);
        const char* const what = unusable(address);
        return what != nullptr ? std::string(what) + "; write one that the other end can reach" : "";
    }
    if (!field.isKey())
        return "";
    const auto key              = field.keyIn(r);
    const Word* const algorithm = field.name[0] == 'c' ? cipherOf(r) : hashOf(r);
    if (algorithm != nullptr && std::count(algorithm->keys.begin(), algorithm->keys.end(), key.size()) == 0)
        return std::to_string(key.size()) + " bytes; " + algorithm->word + " takes " + either(algorithm->keys);
    return std::all_of(key.begin(), key.end(), [](unsigned char byte) { return byte == 0; })
               ? "all zeros; write the key"
               : "";
}

void check(const Record& r, Purpose purpose, const Lines& lines, Problems& problems, std::vector<std::string>& warnings)
{
    std::vector<std::string> missing;
    for (const Field& field : kFields)
        if ((field.neededFor & purpose) != 0 && !lines.contains(field.name))
            missing.emplace_back(field.name);
    if (r.udp_encap_valid != 0 && r.udp_encap != 0 && r.udp_encap_port_valid == 0)
        missing.emplace_back("udp_encap_port"); // without it, ESP would go without UDP
    if (r.udp_encap_port_valid != 0 && r.udp_encap_valid == 0)
        missing.emplace_back("udp_encap");
    if (!missing.empty())
        problems.add("missing: " + joined(missing));

    if (r.local_addr_valid != 0 && r.remote_addr_valid != 0) {
        if (r.local_addr.ip_type != r.remote_addr.ip_type)
            problems.add("remote_addr: of another family than local_addr; write two IPv4 or two IPv6 addresses",
                         lines.at("remote_addr"));
        else if (addressText(r.local_addr) == addressText(r.remote_addr) && purpose != ForRemoval)
            problems.add("remote_addr: the same as local_addr; write the peer's", lines.at("remote_addr"));
    }
    const Field* before = nullptr;
    for (const Field& field : kFields) {
        const std::string mistake = field.isIn(r) ? mistakeIn(r, field, purpose) : "";
        if (!mistake.empty())
            problems.add(std::string(field.name) + ": " + mistake, lines.at(field.name));
        // The keys of the two directions are neighbours in the record.
        const auto rx = before != nullptr && before->isKey() ? before->keyIn(r) : std::span<const std::uint8_t>();
        const auto tx = field.isKey() ? field.keyIn(r) : std::span<const std::uint8_t>();
        if (!rx.empty() && std::equal(rx.begin(), rx.end(), tx.begin(), tx.end()))
            warnings.push_back(std::string(before->name) + ": the same as " + field.name +
                               "; each direction should have its own");
        before = &field;
    }
}

} // namespace

void FileRecord::read(const std::string& path, Purpose purpose, std::vector<std::string>& warnings)
{
    Text text;
    text.read(path, warnings);
    Problems problems(path);
    Reading reading = {*this};
    Lines lines;
    std::size_t number = 0;
    for (std::string_view left = text.view(); !left.empty();) {
        const std::string_view line = left.substr(0, left.find('\n'));
        readLine(line, ++number, reading, lines, problems);
        left.remove_prefix(std::min(line.size() + 1, left.size()));
    }
    if (reading.impliedMode != 0) {
        if (aes_mode_valid != 0 && aes_mode != reading.impliedMode)
            problems.add("aes_mode: not the mode that crypto_algo names; leave it out", lines.at("aes_mode"));
        aes_mode       = reading.impliedMode;
        aes_mode_valid = 1;
    }
    check(*this, purpose, lines, problems, warnings);
    problems.report();
}

Json FileRecord::described() const
{
    return {{"protocol", wordFor(kProtocols, ipsec_protocol, 0)->word},
            {"mode", wordFor(kModes, encap_mode, 0)->word},
            {"local", addressText(local_addr)},
            {"remote", addressText(remote_addr)},
            {"spi_tx", spi_tx},
            {"spi_rx", spi_rx},
            {"cipher", cipherOf(*this)->word},
            {"hash", hashOf(*this)->word},
            {"udp", udp_encap_valid != 0 && udp_encap != 0}};
}

void FileRecord::forgetKeys()
{
    for (const Field& field : kFields)
        if (field.isKey())
            Vesk::wipe(field.in(*this), field.size);
}

std::vector<std::string> differences(const Record& one, const Record& other)
{
    std::vector<std::string> names;
    for (const Field& each : kFields) {
        const bool moves = std::strncmp(each.name, "udp", 3) == 0 || std::strcmp(each.name, "local_addr") == 0;
        if (!moves && each.isIn(one) && each.isIn(other) && std::memcmp(each.in(one), each.in(other), each.size) != 0)
            names.emplace_back(each.name);
    }
    return names;
}

void explainRecord(Answer& answer)
{
    const auto padded = [](std::string text, std::size_t width) {
        text.resize(std::max(text.size(), width), ' ');
        return text;
    };
    for (const Field& field : kFields) {
        Json entry = {{"name", field.name}, {"meaning", field.meaning}};
        answer.text += bold(padded(field.name, 17)) + field.meaning + '\n';
        for (const Word& each : field.words != nullptr ? *field.words : Words()) {
            const std::string word  = std::string(19, ' ') + each.word + " (" + either(each.codes) + ')';
            const char* const nonce = each.mode == kCTR ? ", 4 nonce" : "";
            answer.text +=
                each.keys.empty() ? word : padded(word, 38) + "key of " + either(each.keys) + " bytes" + nonce;
            answer.text += '\n';
            entry["words"].push_back({{"word", each.word}, {"codes", each.codes}, {"key_bytes", each.keys}});
        }
        answer.findings["fields"].push_back(entry);
    }
}
