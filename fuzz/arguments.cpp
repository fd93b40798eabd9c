// Arguments and records of any bytes to every operation, on a kernel that is content with everything.
#include "FuzzTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    Vesk::Testing::ScriptedKernel kernel;
    survive(kernel, operationOf(input));
    return 0;
}
