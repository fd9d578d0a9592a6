// Installs a package as an application may that asks nobody but the library: what the library itself refuses.
#include "upgrade/upgrade_api.h"

int main(int argc, char** argv) {
    return argc == 2 && UPGRADE_main_proc_fun(argv[1]) == 0 ? 0 : 1;
}
