#include "DryRun.h"

#include "Text.h"

#include <Decode.h>
#include <ScriptedKernel.h>

#include <algorithm>

#include <net/if.h>

using namespace Vesk::Messages;
using Vesk::Testing::Bytes;
using Vesk::Testing::Request;
using Vesk::Testing::ScriptedKernel;

namespace {

constexpr std::size_t kValueColumn = 28, kBytesColumn = 45, kBytesInLine = 16;

// "    id.spi                  0x1001           00001001". What is too long for its column moves the next one.
std::string lineOf(const Field& field, const Bytes& bytes)
{
    std::string line =
        padded((field.name.empty() ? "  " + field.part : "    " + field.name) + ' ', kValueColumn) + field.text;
    std::string lines;
    if (line.size() >= kBytesColumn && !bytes.empty())
        lines = std::exchange(line, "") + '\n';
    for (std::size_t at = 0; at < bytes.size(); at += kBytesInLine) {
        line.resize(kBytesColumn, ' ');
        const std::size_t size = std::min(kBytesInLine, bytes.size() - at);
        lines += std::exchange(line, "") + faint(digits(bytes.data() + at, size)) + '\n';
    }
    return line.empty() ? lines : lines + line + '\n';
}

Json valueOf(const Field& field)
{
    if (const auto* const number = std::get_if<std::uint64_t>(&field.value))
        return *number;
    if (const auto* const text = std::get_if<std::string>(&field.value))
        return *text;
    return nullptr;
}

void addRequest(Answer& answer, const Request& request, bool showKeys)
{
    Json fields = Json::array();
    std::string part;
    const std::string size = std::to_string(request.datagram.size()) + " bytes";
    answer.text += bold(protocolName(request.protocol) + ", " + size) + '\n';
    for (Field& field : decode(request.protocol, request.datagram)) {
        if (part != field.part && !field.name.empty())
            answer.text += "  " + field.part + '\n';
        part             = field.part;
        const auto first = request.datagram.begin() + static_cast<std::ptrdiff_t>(field.at);
        Bytes bytes      = {first, first + static_cast<std::ptrdiff_t>(field.size)};
        if (field.kind == Kind::Key) {
            field.text = std::to_string(field.size) + (showKeys ? " bytes" : " bytes, hidden");
            bytes.resize(showKeys ? field.size : 0);
        }
        answer.text += lineOf(field, bytes);
        fields.push_back({{"part", field.part},
                          {"field", field.name},
                          {"value", valueOf(field)},
                          {"text", field.text},
                          {"bytes", digits(bytes.data(), bytes.size())}});
    }
    answer.findings["requests"].push_back({{"protocol", protocolName(request.protocol)}, {"fields", fields}});
}

} // namespace

Answer dryRun(const Operation& operation, const std::string& unanswered, bool showKeys)
{
    struct if_nameindex* const devices = if_nameindex(); // the kernel is asked before its place is taken
    ScriptedKernel kernel;
    for (struct if_nameindex* each = devices; each != nullptr && each->if_index != 0; ++each)
        kernel.addInterface(each->if_name, each->if_index);
    if (devices != nullptr)
        if_freenameindex(devices);

    Answer ignored; // what the operation makes of a kernel that says nothing
    const int result = operation.call(ignored);
    Answer answer;
    if (kernel.requests().empty() && result == 0)
        answer = ignored; // it has no need of a kernel
    answer.findings["requests"] = Json::array();
    for (const Request& request : kernel.requests())
        addRequest(answer, request, showKeys);
    answer.log  = kernel.log();
    answer.note = "dry run, nothing was sent";
    if (result != 0 && kernel.requests().empty()) { // nobody else can have refused it
        answer.result = result;
        answer.status = Refused;
        answer.note += "; nor would be, since the library refuses this itself";
    } else if (!unanswered.empty() && !kernel.requests().empty()) {
        answer.note += "; the kernel's answer is taken as empty: " + unanswered;
    }
    return answer;
}
