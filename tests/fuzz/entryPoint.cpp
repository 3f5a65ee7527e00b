// The entry of a fuzz program: FUZZ_TARGET names the target that it is for.
#include "Target.h"

namespace SolvaneTest {

void FUZZ_TARGET(std::uint8_t const* data, std::size_t size);

} // namespace SolvaneTest

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    SolvaneTest::FUZZ_TARGET(data, size);
    return 0;
}
