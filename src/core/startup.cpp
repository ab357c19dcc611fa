#include "core/startup.h"

#include "core/log.h"
#include "core/paths.h"

int kzMain() {
    if (!configureHostMode()) return 1;
    return 0;
}
