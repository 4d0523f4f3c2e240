#include "ssh_cfg_ctl/ctl.h"

int main(int argc, char** argv) {
    return ctl_run({argv + 1, argv + argc});
}
