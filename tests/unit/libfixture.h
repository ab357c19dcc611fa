// A library rooted in a fresh temporary folder for each test.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/paths.h"
#include "library/library.h"

class LibraryFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        root = (std::filesystem::temp_directory_path() /
                ("kz-lib-" + std::to_string(getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name()))
                   .string();
        std::filesystem::remove_all(root);
        std::filesystem::create_directories(root + "/music");
        initmdb(root);
        lib().dirtybit = 0;
    }
    void TearDown() override { std::filesystem::remove_all(root); }

    // Makes a file (and its folders) below the music folder.
    void touch(const std::string& relative, const std::string& content = "x") {
        std::filesystem::path p = root + "/music/" + relative;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p) << content;
    }
    bool exists(const std::string& relative) {
        return std::filesystem::exists(root + "/music/" + relative);
    }

    std::string root;
};
