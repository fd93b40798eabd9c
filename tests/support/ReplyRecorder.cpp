#include "ReplyRecorder.h"

#include <ScriptedKernel.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace Vesk::Testing {

namespace {

constexpr std::size_t kEnough = 4096; // of a long dump the rest says nothing new

std::filesystem::path folder;
std::map<int, std::string> exchanges; // by descriptor, as they are written

// Exchanges that begin alike and are as long as each other are of a kind: "24-60.bin", of refusals "2-36-17.bin".
std::string nameOf(const std::string& exchange)
{
    struct {
        std::uint16_t size;
        nlmsghdr header;
        nlmsgerr refusal;
    } __attribute__((packed)) first = {};
    std::memcpy(&first, exchange.data(), std::min(sizeof first, exchange.size()));
    std::string name = std::to_string(first.header.nlmsg_type) + '-' + std::to_string(exchange.size());
    if (first.header.nlmsg_type == NLMSG_ERROR)
        name += '-' + std::to_string(-first.refusal.error);
    return name + ".bin";
}

void keep(int descriptor, const void* datagram, std::size_t size)
{
    std::string& exchange = exchanges[descriptor];
    const auto length     = static_cast<std::uint16_t>(size);
    if (datagram != nullptr && exchange.size() <= kEnough) {
        exchange.append(reinterpret_cast<const char*>(&length), sizeof length);
        exchange.append(static_cast<const char*>(datagram), size);
    } else if (datagram == nullptr) {
        const auto path = folder / nameOf(exchange);
        if (!exchange.empty() && !std::filesystem::exists(path))
            std::ofstream(path, std::ios::binary) << exchange;
        exchanges.erase(descriptor);
    }
}

} // namespace

void recordReplies(const char* path)
{
    folder = path;
    watchReplies(keep);
}

} // namespace Vesk::Testing
