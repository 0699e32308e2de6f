// Any bytes are read as a movie, drawn and told of: without a fault, in bounded memory, and with
// boxes that cover the file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "MapDrawing.h"
#include "MovieFacts.h"
#include "MovieMap.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = memfd_create("movie", 0);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        return 0;
    const kxmap::MovieMap map = kxmap::ReadMovieMap("/proc/self/fd/" + std::to_string(file));
    uint64_t position = 0;
    for (const kxmap::Box& box : map.boxes) {
        if (box.offset != position) std::abort();
        position += box.size;
    }
    if (position != size) std::abort();
    if (kxmap::DrawMovieMap(map).empty() || kxmap::FactsAsText(map).empty() ||
        kxmap::FactsAsJson(map).empty())
        std::abort();
    return 0;
}
