#include "core/start_up.h"

int main() {
    return run_agent();
}
