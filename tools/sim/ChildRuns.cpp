#include "ChildRuns.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace pelyx_sim {
namespace {

pid_t spawn(const std::string& executable, const ChildRun& run) {
    std::vector<std::string> args{executable};
    args.insert(args.end(), run.args.begin(), run.args.end());
    args.insert(args.end(), {"--quiet", "--summary", run.summaryFile});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, run.errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw std::runtime_error(std::string("cannot start a run: ") + strerror(error));
    return pid;
}

void finish(ChildRun* run, int status) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        std::ifstream in(run->summaryFile);
        Json::CharReaderBuilder builder;
        std::string errors;
        run->ok = in && Json::parseFromStream(builder, in, &run->summary, &errors) && run->summary.isObject();
        if (!run->ok) run->error = run->summaryFile + ": not a summary";
        return;
    }
    std::ifstream err(run->errorFile);
    std::string first;
    std::getline(err, first);
    run->error = first.empty() ? "exit status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) : first;
}

} // namespace

void playChildRuns(const std::string& executable, std::vector<ChildRun>* runs, int jobs, const std::string& what) {
    const auto start = std::chrono::steady_clock::now();
    std::map<pid_t, size_t> running;
    size_t next = 0, done = 0;
    const bool tty = isatty(STDERR_FILENO);
    jobs = std::max(1, jobs);
    while (done < runs->size()) {
        while (running.size() < static_cast<size_t>(jobs) && next < runs->size()) {
            running[spawn(executable, (*runs)[next])] = next;
            ++next;
        }
        int status = 0;
        const pid_t pid = waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error(std::string("waiting for a run: ") + strerror(errno));
        }
        auto it = running.find(pid);
        if (it == running.end()) continue;
        finish(&(*runs)[it->second], status);
        running.erase(it);
        ++done;
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double left = elapsed / static_cast<double>(done) * static_cast<double>(runs->size() - done);
        fprintf(stderr, "%spelyx-sim: %s: %zu/%zu runs done, %.0f s so far, about %.0f s left%s", tty ? "\r" : "",
                what.c_str(), done, runs->size(), elapsed, left, tty ? "\033[K" : "\n");
    }
    if (tty) fprintf(stderr, "\n");
}

int defaultJobs() {
    return static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
}

} // namespace pelyx_sim
