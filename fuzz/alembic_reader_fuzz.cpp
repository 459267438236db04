// Any bytes, read as an Alembic file through the curves reader, which opens them through the
// library's factory after its check of the archive's index. Every input gives curves or an
// AlembicError naming the file, never a crash, a leak or a hang; curves that read must make a
// valid strand set.

#include <cstddef>
#include <cstdint>
#include <string>

#include "alembic/alembic_curves_reader.h"
#include "alembic/alembic_error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    try {
        const AlembicCurvesReader reader("input.abc",
                                         std::string(reinterpret_cast<const char*>(data), size));
        reader.curvesObjects();
        reader.hasStrandIds();
        std::vector<double> times = reader.sampleTimes();
        times.push_back(0.0);
        if (times.size() > 4) times.erase(times.begin() + 3, times.end() - 1);
        for (const double time : times) {
            const StrandSet strands = reader.readStrands(time);
            std::string message;
            if (!strands.validate(message)) __builtin_trap();
        }
    } catch (const AlembicError& error) {
        if (std::string(error.what()).rfind("input.abc: ", 0) != 0) __builtin_trap();
    }
    return 0;
}
