#include "ReplyRecorder.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <linux/netlink.h>

namespace Vesk::Testing {

namespace {

constexpr std::size_t kEnough = 4096; // of a long dump the rest says nothing new

thread_local std::map<int, std::string> exchanges; // by descriptor, as they are written

const char* folder()
{
    return std::getenv("VESK_RECORD_REPLIES");
}

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

} // namespace

void recordReply(int descriptor, const void* datagram, std::size_t size)
{
    if (folder() == nullptr)
        return;
    std::string& exchange = exchanges[descriptor];
    const auto length     = static_cast<std::uint16_t>(size);
    if (exchange.size() > kEnough)
        return;
    exchange.append(reinterpret_cast<const char*>(&length), sizeof length);
    exchange.append(static_cast<const char*>(datagram), size);
}

void endRecording(int descriptor)
{
    if (folder() == nullptr)
        return;
    const auto exchange = exchanges.find(descriptor);
    if (exchange == exchanges.end())
        return;
    const auto path = std::filesystem::path(folder()) / nameOf(exchange->second);
    if (!std::filesystem::exists(path))
        std::ofstream(path, std::ios::binary) << exchange->second;
    exchanges.erase(exchange);
}

} // namespace Vesk::Testing
