#include "core/startup.h"

// Arguments are accepted and ignored: configuration lives in the settings file.
int main(int, char**) {
    return kzMain();
}
