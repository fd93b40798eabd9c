#include "RecordFile.h"

#include "print/Text.h"

#include <netlink/Numbers.h>
#include <netlink/Wipe.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
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

// A word for a code. Of an algorithm, also the lengths that its keys have, in bytes; of AES, the mode.
struct Word {
    const char* word;
    std::vector<std::uint32_t> codes;
    std::vector<std::size_t> keys = {};
    std::uint32_t mode            = 0;
};
using Words = std::vector<Word>;

const std::vector<std::uint32_t> kAES = {TRO_IPSEC_CRYPTO_ALGO_AES_V01, TRO_IPSEC_CRYPTO_ALGO_AES_19_V01};

const Words kProtocols = {{"ah", {TRO_IPSEC_PROTOCOL_AH_V01}}, {"esp", {TRO_IPSEC_PROTOCOL_ESP_V01}}};
const Words kModes     = {{"tunnel", {TRO_IPSEC_ENCAP_MODE_TUNNEL_V01}},
                          {"transport", {TRO_IPSEC_ENCAP_MODE_TRANSPORT_V01}}};
const Words kAESModes  = {{"cbc", {TRO_IPSEC_AES_MODE_CBC_V01}}, {"ctr", {TRO_IPSEC_AES_MODE_CTR_V01}}};
const Words kCiphers   = {{"des-cbc", {TRO_IPSEC_CRYPTO_ALGO_DES_CBC_V01}, {8}},
                          {"3des-cbc", {TRO_IPSEC_CRYPTO_ALGO_3DES_CBC_V01}, {24}},
                          {"aes-cbc", kAES, {16, 24, 32}, TRO_IPSEC_AES_MODE_CBC_V01},
                          {"aes-ctr", kAES, {20, 28, 36}, TRO_IPSEC_AES_MODE_CTR_V01}};
const Words kHashes    = {
       {"hmac-md5", {TRO_IPSEC_HASH_ALGO_MD5_V01}, {16}},       {"hmac-sha1", {TRO_IPSEC_HASH_ALGO_SHA1_V01}, {20}},
       {"hmac-sha256", {TRO_IPSEC_HASH_ALGO_SHA256_V01}, {32}}, {"hmac-sha384", {TRO_IPSEC_HASH_ALGO_SHA384_V01}, {48}},
       {"hmac-sha512", {TRO_IPSEC_HASH_ALGO_SHA512_V01}, {64}}, {"aes-xcbc", {TRO_IPSEC_HASH_ALGO_AES_XCBC_V01}, {16}}};

// "16, 24 or 32"
template <typename Number>
std::string either(const std::vector<Number>& numbers)
{
    std::string text;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        text += (i == 0 ? "" : i + 1 == numbers.size() ? " or " : ", ") + std::to_string(numbers[i]);
    return text;
}

// "esp (3)"
std::string withCodes(const Word& word)
{
    return std::string(word.word) + " (" + either(word.codes) + ')';
}

// Null when there is none, as for 0, which stands where the record says nothing.
const Word* wordFor(const Words& words, std::uint32_t code, std::uint32_t mode = 0)
{
    const auto found = std::find_if(words.begin(), words.end(), [&](const Word& each) {
        return std::count(each.codes.begin(), each.codes.end(), code) != 0 && (each.mode == 0 || each.mode == mode);
    });
    return found == words.end() ? nullptr : &*found;
}

const Word* cipherOf(const Record& record)
{
    const std::uint32_t mode = record.aes_mode_valid != 0 ? record.aes_mode : TRO_IPSEC_AES_MODE_CBC_V01;
    return wordFor(kCiphers, record.crypto_algo, mode);
}

// A field of the record, by its place there. What it holds shows in its size, if it has no words.
struct Field {
    const char* name;
    std::size_t valid, at, size;
    unsigned neededFor; // Purposes
    std::string meaning;
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
        return reinterpret_cast<const std::uint8_t*>(&record)[valid] != 0;
    }
    // Empty where this is no key.
    [[nodiscard]] std::span<const std::uint8_t> keyIn(const Record& record) const
    {
        std::uint32_t length = 0;
        if (isKey())
            std::memcpy(&length, in(record) - sizeof length, sizeof length);
        return {in(record), length};
    }
    void set(Record& record, const void* value) const
    {
        std::memcpy(in(record), value, size);
        reinterpret_cast<std::uint8_t*>(&record)[valid] = 1;
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
    {FIELD(udp_encap_port), 0, "this end's UDP port; the peer's is " + std::to_string(Vesk::kNatTraversal), 1,
     UINT16_MAX},
    {FIELD(hash_key_rx), ForStates, "integrity key of the incoming SA, in hexadecimal"},
    {FIELD(hash_key_tx), ForStates, "integrity key of the outgoing SA, in hexadecimal"},
};

#undef FIELD

tro_ip_addr_type_v01 addressFor(const std::string& text)
{
    tro_ip_addr_type_v01 address = {};
    in_addr v4                   = {};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        const std::uint32_t word = ntohl(v4.s_addr); // the record keeps IPv4 addresses in host order
        address                  = {TRO_IP_TYPE_IPV4_V01, sizeof word, {}};
        std::memcpy(address.addr, &word, sizeof word);
    } else if (inet_pton(AF_INET6, text.c_str(), address.addr) == 1) {
        address.ip_type  = TRO_IP_TYPE_IPV6_V01;
        address.addr_len = sizeof address.addr;
    } else {
        throw Refusal("write an address, such as 192.0.2.1 or 2001:db8::1");
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
        throw Refusal("write whole bytes, two hexadecimal digits each");
    std::memcpy(field.in(record) - sizeof length, &length, sizeof length);
    field.set(record, field.in(record));
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
        if (path == "-" || path == "/dev/stdin")
            return STDIN_FILENO;
        constexpr std::string_view folder = "/dev/fd/";
        const std::int64_t number = path.starts_with(folder) ? numberOf(path.substr(folder.size())).value_or(-1) : -1;
        return number <= INT_MAX ? static_cast<int>(number) : -1;
    }

    // The file that is looked at is the one that is read. Only a file has a mode that says who else may read it.
    std::string readFrom(int descriptor, const std::string& title, std::vector<std::string>& warnings)
    {
        struct stat about = {};
        if (fstat(descriptor, &about) != 0)
            return unreadable();
        if (S_ISREG(about.st_mode) && (about.st_mode & (S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH)) != 0)
            return "a record holds keys, but others may read or write this file; chmod 600 it, or a copy";
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

// What an address is, that no end of a tunnel is; null for all others.
const char* unusable(const tro_ip_addr_type_v01& address)
{
    in6_addr v6 = {};
    std::memcpy(&v6, address.addr, sizeof v6);
    std::uint32_t v4 = 0;
    std::memcpy(&v4, address.addr, sizeof v4);
    const bool is4 = address.ip_type == TRO_IP_TYPE_IPV4_V01;
    if (is4 ? v4 >> 24 == 0 : IN6_IS_ADDR_UNSPECIFIED(&v6) != 0)
        return "no address of a host";
    if (!is4 && IN6_IS_ADDR_V4MAPPED(&v6) != 0)
        return "an IPv4 address in IPv6's form";
    if (is4 ? v4 >> 24 == IN_LOOPBACKNET : IN6_IS_ADDR_LOOPBACK(&v6) != 0)
        return "a loopback address";
    if (is4 ? v4 >= INADDR_UNSPEC_GROUP : IN6_IS_ADDR_MULTICAST(&v6) != 0)
        return "a multicast, reserved or broadcast address";
    return nullptr;
}

// Reads the lines of a file, and collects all that is wrong with them. No message shows a value: it may be a key.
class Reader {
public:
    Reader(Record& to, const std::string& path) : record(to), file(titleOf(path)) {}

    void readLine(std::string_view line)
    {
        ++number;
        line = trimmed(line.substr(0, line.find_first_of(";#")));
        if (line.empty())
            return;
        const std::size_t sign = line.find('=');
        const std::string name(trimmed(line.substr(0, sign)));
        const auto field = std::find_if(kFields.begin(), kFields.end(), [&](const Field& f) { return name == f.name; });
        if (sign == std::string_view::npos || field == kFields.end())
            return add(unknown(sign == std::string_view::npos ? "" : name), number);
        const auto [given, first] = lines.emplace(name, number);
        if (!first)
            return add(name + ": given in line " + std::to_string(given->second) + " too; write it once", number);
        try {
            set(*field, trimmed(line.substr(sign + 1)));
        } catch (const Refusal& refusal) {
            addTo(name, refusal.what());
        }
    }

    // Throws a Refusal with all of it.
    void finish(Purpose purpose, std::vector<std::string>& warnings)
    {
        if (impliedMode != 0) {
            if (record.aes_mode_valid != 0 && record.aes_mode != impliedMode)
                addTo("aes_mode", "not the mode that crypto_algo names; leave it out");
            record.aes_mode       = impliedMode;
            record.aes_mode_valid = 1;
        }
        checkWhole(purpose);
        checkValues(purpose, warnings);
        if (record.spi_rx_valid != 0 && record.spi_rx == record.spi_tx)
            warnings.emplace_back("spi_rx: the same as spi_tx; veskctl sa remove would remove TX alone");
        if (!all.empty())
            throw Refusal(all);
    }

private:
    void add(const std::string& what, std::size_t line = 0)
    {
        all.push_back(file + (line != 0 ? ':' + std::to_string(line) : "") + ": " + what);
    }
    void addTo(const std::string& name, const std::string& what) { add(name + ": " + what, lines.at(name)); }

    // What is no name of the record may be a key in the wrong place; only what reads like a name is shown.
    static std::string unknown(const std::string& name)
    {
        const bool wordLike =
            name.size() <= 20 && name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos;
        return wordLike && !name.empty()
                   ? "unknown name: " + name + "; one of " + joined(kFields, ", ", std::mem_fn(&Field::name))
                   : "no line of the form \"name = value\"; veskctl record explain shows the names";
    }

    std::uint32_t numberFor(const Field& field, std::string_view text)
    {
        const auto given = numberOf(text);
        if (field.words == nullptr) {
            if (given && *given >= field.lowest && *given <= field.highest)
                return static_cast<std::uint32_t>(*given);
            throw Refusal("write " + numberFrom(field.lowest, field.highest));
        }
        for (const Word& each : *field.words) {
            if (given && std::count(each.codes.begin(), each.codes.end(), *given) != 0)
                return static_cast<std::uint32_t>(*given);
            if (text == each.word) {
                impliedMode = each.mode != 0 ? each.mode : impliedMode;
                return each.codes[0];
            }
        }
        throw Refusal("write one of " + joined(*field.words, ", ", withCodes));
    }

    void set(const Field& field, std::string_view text)
    {
        if (field.isKey())
            return setKey(field, text, record);
        if (field.isAddress()) {
            const auto address = addressFor(std::string(text));
            return field.set(record, &address);
        }
        const std::uint32_t word = numberFor(field, text);
        const auto port          = htons(static_cast<std::uint16_t>(word));
        const auto flag          = static_cast<std::uint8_t>(word);
        field.set(record, field.size == 1 ? &flag : field.size == 2 ? &port : static_cast<const void*>(&word));
    }

    void checkWhole(Purpose purpose)
    {
        std::vector<std::string> missing;
        for (const Field& field : kFields)
            if ((field.neededFor & purpose) != 0 && !lines.contains(field.name))
                missing.emplace_back(field.name);
        if (record.udp_encap != 0 && !lines.contains("udp_encap_port"))
            missing.emplace_back("udp_encap_port"); // without it, ESP would go without UDP
        if (record.udp_encap_port_valid != 0 && !lines.contains("udp_encap"))
            missing.emplace_back("udp_encap");
        if (!missing.empty())
            add("missing: " + joined(missing));

        if (record.local_addr_valid == 0 || record.remote_addr_valid == 0)
            return;
        if (record.local_addr.ip_type != record.remote_addr.ip_type)
            addTo("remote_addr", "of another family than local_addr; write two IPv4 or two IPv6 addresses");
        else if (addressText(record.local_addr) == addressText(record.remote_addr) && purpose != ForRemoval)
            addTo("remote_addr", "the same as local_addr; write the peer's");
    }

    void checkValues(Purpose purpose, std::vector<std::string>& warnings)
    {
        const Field* before = kFields.data();
        for (const Field& field : kFields) {
            const bool given = field.isIn(record);
            const auto key = field.keyIn(record), other = before->keyIn(record);
            if (given && field.isAddress() && purpose != ForRemoval) { // what is installed must be possible to remove
                tro_ip_addr_type_v01 address = {};
                std::memcpy(&address, field.in(record), sizeof address);
                if (const char* const what = unusable(address))
                    addTo(field.name, std::string(what) + "; write one that the other end can reach");
            } else if (given && field.isKey()) {
                const Word* const algorithm =
                    field.name[0] == 'c' ? cipherOf(record) : wordFor(kHashes, record.hash_algo);
                if (algorithm != nullptr && std::count(algorithm->keys.begin(), algorithm->keys.end(), key.size()) == 0)
                    addTo(field.name, std::to_string(key.size()) + " bytes; " + algorithm->word + " takes " +
                                          either(algorithm->keys));
                else if (const std::size_t nonce =
                             algorithm == nullptr || algorithm->mode != TRO_IPSEC_AES_MODE_CTR_V01 ? 0 : 4;
                         isZero(key.first(key.size() - nonce)))
                    addTo(field.name, "all zeros; write the key");
            }
            // The keys of the two directions are neighbours in the record.
            if (!key.empty() && std::equal(key.begin(), key.end(), other.begin(), other.end()))
                warnings.push_back(std::string(before->name) + ": the same as " + field.name +
                                   "; each direction should have its own");
            before = &field;
        }
    }

    Record& record;
    const std::string file;
    std::size_t number        = 0;
    std::uint32_t impliedMode = 0;            // by a cipher's word
    std::map<std::string, std::size_t> lines; // where a name was given
    std::vector<std::string> all;
};

} // namespace

void FileRecord::read(const std::string& path, Purpose purpose, std::vector<std::string>& warnings)
{
    Text text;
    text.read(path, warnings);
    Reader reader(*this, path);
    for (std::string_view left = text.view(); !left.empty();) {
        const std::string_view line = left.substr(0, left.find('\n'));
        reader.readLine(line);
        left.remove_prefix(std::min(line.size() + 1, left.size()));
    }
    reader.finish(purpose, warnings);
}

Json FileRecord::described() const
{
    return {{"protocol", wordFor(kProtocols, ipsec_protocol)->word},
            {"mode", wordFor(kModes, encap_mode)->word},
            {"local", addressText(local_addr)},
            {"remote", addressText(remote_addr)},
            {"spi_tx", spi_tx},
            {"spi_rx", spi_rx},
            {"cipher", cipherOf(*this)->word},
            {"hash", wordFor(kHashes, hash_algo)->word},
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
    for (const Field& field : kFields) {
        Json entry = {{"name", field.name}, {"meaning", field.meaning}};
        answer.text += bold(padded(field.name, 17)) + field.meaning + '\n';
        for (const Word& each : field.words != nullptr ? *field.words : Words()) {
            const std::string word  = padded("", 19) + withCodes(each);
            const char* const nonce = each.mode == TRO_IPSEC_AES_MODE_CTR_V01 ? ", 4 nonce" : "";
            answer.text +=
                each.keys.empty() ? word : padded(word, 38) + "key of " + either(each.keys) + " bytes" + nonce;
            answer.text += '\n';
            entry["words"].push_back({{"word", each.word}, {"codes", each.codes}, {"key_bytes", each.keys}});
        }
        answer.findings["fields"].push_back(entry);
    }
}
