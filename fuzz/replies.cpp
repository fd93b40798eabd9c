// Replies of any bytes to every operation: the first requests get datagrams from the input, later ones the usual answer.
#include "FuzzTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    Vesk::Testing::ScriptedKernel kernel;
    for (int requests = input.ConsumeIntegralInRange(0, 4); requests > 0; --requests) {
        std::vector<Vesk::Testing::Reply> answer;
        for (int datagrams = input.ConsumeIntegralInRange(0, 3); datagrams > 0; --datagrams) {
            const std::string bytes = input.ConsumeRandomLengthString(4200);
            answer.push_back(Vesk::Testing::reply({bytes.begin(), bytes.end()}));
        }
        kernel.answer(answer);
    }
    survive(kernel, operationOf(input));
    return 0;
}
