// Whether anything is left behind, slowly: by many threads on a real kernel, or by a million calls on the scripted one.
//
//     endurance load [ROUNDS]    eight threads, so many rounds each, in a network of their own; takes root
//     endurance soak [ROUNDS]
//
// Ends with 0 when no operation failed, no descriptor stayed and, after a warm-up, memory did not grow; with 77 without
// the right to a network. Sanitizers keep memory of their own, so it is not judged under them.

#include <AnyOperation.h>
#include <Expectations.h>
#include <RealKernel.h>
#include <Records.h>
#include <vesk/netlink.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include <linux/xfrm.h>

using namespace Vesk::Testing;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kJudgeMemory = false;
#else
constexpr bool kJudgeMemory = true;
#endif

long openDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

long residentPages()
{
    long size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident;
}

// One thread's round: what it adds it removes, and nobody else has it. SAs take a kernel with ESP.
int round(unsigned int thread, bool withESP)
{
    int failed               = 0;
    const auto expect        = [&](bool holds) { failed += holds ? 0 : 1; };
    sockaddr_storage address = socketAddress(("2001:db8:" + std::to_string(thread + 1) + "::").c_str());
    std::string here = "10." + std::to_string(thread) + ".0.0/16", there = "10.99.0.0/16", device = "lo";
    std::string family = "nlctrl";
    unsigned short id  = 0;
    unsigned int label = 0;
    auto record        = espTunnel("192.0.2.1", "198.51.100.7");
    record.spi_tx += thread;
    record.spi_rx += thread;
    if (withESP) {
        expect(Vesk::addXFRMStates(record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 1, 0xff) == 0);
        expect(Vesk::updateXFRMStates(record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 2, 0xff) == 0);
        expect(Vesk::removeXFRMStates(record) == 0); // what it missed, the next round finds in its way
    }
    expect(Vesk::addrlabelAdd(&address, 48, 1000 + thread, 1) == 0);
    expect(Vesk::addXFRMPolicies(record, here, there, 0, true) == 0);
    expect(Vesk::RTNetlinkGetRule(device) == std::pair(0x10u, 0xffu));
    expect(Vesk::queryGenericNetlinkFamily(family, 2, &id) == 0 && id == 16);
    expect(Vesk::addrlabelGenerate(AF_INET6, false, &label) == 0);
    expect(Vesk::RTNetlinkSetGSOMaxSize(device, 1500) == -1); // mainline refuses it
    expect(Vesk::removeXFRMPolicies(here, there, 0, true) == 0);
    expect(Vesk::addrlabelDel(&address, 48, 1000 + thread, 1) == 0);
    return failed;
}

// The threads are started anew for each part of the rounds: the first ones fill the allocator's pools.
constexpr int kParts = 5;

int load(int rounds)
{
    if (!enterOwnNetwork())
        return std::puts("SKIPPED: root alone may have a network of its own"), 77;
    output("ip rule add priority 16000 fwmark 0x10/0xff table 1001");
    const bool withESP = succeeds("ip xfrm state add src 192.0.2.3 dst 192.0.2.4 proto esp spi 1 enc 'cbc(aes)' 0x" +
                                  std::string(32, '0'));
    std::atomic<int> failed = round(0, withESP); // warms up, and takes the logger's first use
    const long descriptors  = openDescriptors();
    long pages              = 0;
    for (int part = 0; part < kParts; ++part) {
        std::vector<std::thread> threads;
        for (unsigned int thread = 0; thread < 8; ++thread)
            threads.emplace_back([&failed, thread, rounds, withESP] {
                for (int i = 0; i < rounds / kParts; ++i)
                    failed += round(thread, withESP);
            });
        for (std::thread& thread : threads)
            thread.join();
        if (part == kParts - 2)
            pages = residentPages();
    }
    pages = residentPages() - pages;
    std::printf("8 threads, %d rounds of operations each%s: %d failed, %ld descriptors and %ld pages more\n", rounds,
                withESP ? "" : ", without SAs", failed.load(), openDescriptors() - descriptors, pages);
    return failed == 0 && openDescriptors() == descriptors && (!kJudgeMemory || pages < 64) ? 0 : 1;
}

int soak(int rounds)
{
    long pages = 0;
    int left   = 0;
    for (int i = 0; i < rounds; ++i) {
        if (i == rounds / 10)
            pages = residentPages();
        std::uint8_t bytes[4096];
        unsigned int state = static_cast<unsigned int>(i) * 2654435761u + 1;
        for (std::uint8_t& byte : bytes) {
            state = state * 1664525u + 1013904223u;
            byte  = static_cast<std::uint8_t>(state >> 24);
        }
        ByteSource source(bytes, sizeof bytes);
        auto record = espTunnel("192.0.2.1", "198.51.100.7");
        ScriptedKernel kernel;
        kernel.addInterface("wlan0", 3);
        kernel.run([&] {
            sockaddr_storage address = socketAddress("fe80::1");
            std::string here = "10.0.0.0/8", there = "10.1.0.0/16", device = "wlan0";
            switch (source.below(6)) {
            case 0:
                return Vesk::addrlabelAdd(&address, source.below(129), source.any<unsigned int>(), 3);
            case 1:
                return Vesk::addXFRMStates(record, static_cast<tro_technology_name_enum_v01>(source.any<int>()), 1, 2);
            case 2:
                return Vesk::addXFRMPolicies(record, here, there, source.any<std::uint8_t>(), source.yes());
            case 3:
                return Vesk::migrateXFRMInfo(record, record, here, there, source.any<std::uint8_t>());
            case 4:
                return Vesk::RTNetlinkFlowControl(device, source.any<unsigned int>(), 0, 1,
                                                  static_cast<unsigned char>(source.below(4)));
            default:
                return Vesk::updateXFRMStates(record, static_cast<tro_technology_name_enum_v01>(0), 1, 2);
            }
        });
        left += static_cast<int>(kernel.openSockets() + kernel.liveBlocks() + kernel.complaints().size());
    }
    pages = residentPages() - pages;
    std::printf("%d operations: %d sockets, blocks or complaints left, %ld pages more after a tenth\n", rounds, left,
                pages);
    return left == 0 && (!kJudgeMemory || pages < 64) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    setenv("VESK_LOG_LEVEL", "5", 1);
    const bool loads = argc > 1 && std::strcmp(argv[1], "load") == 0;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : loads ? 1250 : 1000000;
    return loads ? load(rounds) : soak(rounds);
}
