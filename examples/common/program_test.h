// Tests of a program as a user meets it: runs it in a folder of its own and reads what it says and writes. The path of
// the program comes in the environment variable PROGRAM.
#pragma once
#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

inline std::string slurp(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Outcome {
    int code;
    std::string out, err;
};

class ProgramTest : public testing::Test {
protected:
    void SetUp() override {
        const char* program = std::getenv("PROGRAM");
        ASSERT_NE(program, nullptr);
        program_ = program;
        char name[] = "/tmp/zenrpx-example-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        ASSERT_EQ(mkdir(path("work").c_str(), 0777), 0);
    }
    void TearDown() override { ASSERT_EQ(std::system(("rm -rf " + folder_).c_str()), 0); }

    std::string path(const std::string& name) const { return folder_ + "/" + name; }

    // Runs the program in the folder "work" with arguments as a shell would take them.
    Outcome run(const std::string& arguments) const {
        const std::string command = "cd " + path("work") + " && '" + program_ + "' " + arguments + " >" + path("out") +
                                    " 2>" + path("err") + " </dev/null";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(path("out")), slurp(path("err"))};
    }

    std::vector<std::string> filesOfWork() const {
        std::vector<std::string> names;
        DIR* folder = opendir(path("work").c_str());
        while (const dirent* entry = readdir(folder))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        closedir(folder);
        std::sort(names.begin(), names.end());
        return names;
    }

    // Exit code 1, exactly one line on stderr, which names the program and has `word` in it, and no file come or gone.
    void expectRefused(const std::string& arguments, const std::string& word) const {
        const auto files = filesOfWork();
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.code, 1) << arguments;
        EXPECT_NE(outcome.err.find(word), std::string::npos) << arguments << ": " << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << arguments << ": " << outcome.err;
        const std::string name = program_.substr(program_.rfind('/') + 1);
        EXPECT_EQ(outcome.err.rfind(name + ": ", 0), 0u) << outcome.err;
        EXPECT_EQ(filesOfWork(), files) << arguments;
    }

    std::string program_, folder_;
};
