#include "../mutants.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace mutants {

static unsigned char unrecorded[most];

unsigned selected = 0;
unsigned char* reached = unrecorded;

namespace {

/// Before any table is initialized. The processes of a test share the map.
[[gnu::constructor(101)]] void start() {
    if (const char* number = getenv("MUTANT")) {
        selected = static_cast<unsigned>(strtoul(number, nullptr, 10));
    }
    const char* path = getenv("MUTANTS_REACHED");
    const int fd = path != nullptr ? open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1;
    if (fd < 0) {
        return;
    }
    void* map = MAP_FAILED;
    if (ftruncate(fd, most) == 0) {
        map = mmap(nullptr, most, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (map == MAP_FAILED) {
        abort();
    }
    reached = static_cast<unsigned char*>(map);
}

}  // namespace

}  // namespace mutants
