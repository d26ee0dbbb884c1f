// What the station's end-to-end tests share: running a program on the host
// with its output in a file, and reading back what it wrote.
#pragma once

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace e2e {

struct ProgramRun {
    int status = -1;
    std::string out;
};

// Starts a program on the host with its output in a file.
inline pid_t start_program(const std::vector<std::string>& args, const std::string& out_path) {
    pid_t pid = fork();
    if (pid == 0) {
        FILE* out = fopen(out_path.c_str(), "w");
        if (out == nullptr) _exit(127);
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(out), STDERR_FILENO);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Waits for its end and collects what it printed.
inline ProgramRun finish_program(pid_t pid, const std::string& out_path) {
    ProgramRun run;
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.status = WEXITSTATUS(status);
    std::ifstream in(out_path);
    std::stringstream text;
    text << in.rdbuf();
    run.out = text.str();
    return run;
}

inline std::string file_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline ProgramRun run_program(const std::vector<std::string>& args, const std::string& out_path) {
    return finish_program(start_program(args, out_path), out_path);
}

inline nlohmann::json read_json(const std::string& path) {
    std::ifstream in(path);
    return nlohmann::json::parse(in, nullptr, false);
}

// The run folders under a records folder, in name (start time) order (the
// results database beside them is no run).
inline std::vector<std::string> run_folders(const std::string& records) {
    std::vector<std::string> out;
    if (!std::filesystem::exists(records)) return out;
    for (const auto& e : std::filesystem::directory_iterator(records)) {
        if (e.is_directory()) out.push_back(e.path().string());
    }
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace e2e
