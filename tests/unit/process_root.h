// A host root for the whole test process: the decoder slots, their parser
// threads and the web listener live as long as the process, so the root they
// were started in must too. Removed when the process ends.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>

inline const std::string& processRoot() {
    static std::string root = [] {
        std::filesystem::path p =
            std::filesystem::temp_directory_path() / ("kz-process-" + std::to_string(getpid()));
        std::filesystem::create_directories(p);
        return p.string();
    }();
    static struct Cleanup {
        ~Cleanup() { std::filesystem::remove_all(root); }
    } cleanup;
    return root;
}
