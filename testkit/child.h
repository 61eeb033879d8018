// Child processes for tests that run real programs (the hub daemon, small applications): a
// child with its standard input and output on pipes, read line by line against deadlines.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace vxtest {

inline constexpr int kLineTimeoutMs = 60000;  // generous: the machine is shared and small

inline long long NowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// A child process with its stdin and stdout on pipes.
class Child {
public:
    explicit Child(const std::vector<std::string> &args)
    {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0)
            return;
        std::fflush(nullptr);  // a child must not print the parent's buffered output again
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0), dup2(out[1], 1);
            close(in[1]), close(out[0]);
            std::vector<char *> argv;
            for (const std::string &a : args)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(in[0]), close(out[1]);
        stdin_ = in[1], stdout_ = out[0];
    }
    ~Child()
    {
        Kill(SIGKILL);
        CloseInput();
        if (stdout_ >= 0)
            close(stdout_);
    }
    // The next output line, or "" when none came within the time limit or the output closed.
    std::string Line(int timeoutMs = kLineTimeoutMs)
    {
        const long long deadline = NowMs() + timeoutMs;
        for (;;) {
            const size_t end = buffered_.find('\n');
            if (end != std::string::npos) {
                std::string line = buffered_.substr(0, end);
                buffered_.erase(0, end + 1);
                return line;
            }
            pollfd p{stdout_, POLLIN, 0};
            const long long left = deadline - NowMs();
            char chunk[4096];
            if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
                return "";
            const ssize_t n = read(stdout_, chunk, sizeof chunk);
            if (n <= 0)
                return "";
            buffered_.append(chunk, static_cast<size_t>(n));
        }
    }
    // Reads lines until one starts with `prefix`; returns it ("" on timeout).
    std::string LineStarting(const std::string &prefix)
    {
        for (std::string line = Line(); !line.empty(); line = Line())
            if (line.rfind(prefix, 0) == 0)
                return line;
        return "";
    }
    void Say(const std::string &line)
    {
        const std::string text = line + "\n";
        EXPECT_EQ(write(stdin_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void CloseInput()
    {
        if (stdin_ >= 0)
            close(stdin_), stdin_ = -1;
    }
    void Kill(int signal)
    {
        if (pid_ > 0 && !reaped_)
            kill(pid_, signal);
    }
    // The exit status (waits at most 60 s, then kills); -1 for a signal.
    int Wait()
    {
        if (pid_ <= 0 || reaped_)
            return status_;
        for (long long deadline = NowMs() + kLineTimeoutMs;;) {
            int status;
            const pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                reaped_ = true;
                return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            if (NowMs() > deadline)
                kill(pid_, SIGKILL), deadline = NowMs() + kLineTimeoutMs;
            pollfd none{-1, 0, 0};
            poll(&none, 0, 5);
        }
    }
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int stdin_ = -1, stdout_ = -1, status_ = -1;
    bool reaped_ = false;
    std::string buffered_;
};


// Retries `condition` until it holds (at most kLineTimeoutMs): for effects that another
// process applies in its own time, such as a closed connection.
template <class F> bool Eventually(F condition)
{
    for (const long long deadline = NowMs() + kLineTimeoutMs; NowMs() < deadline;) {
        if (condition())
            return true;
        pollfd none{-1, 0, 0};
        poll(&none, 0, 5);
    }
    return false;
}

}  // namespace vxtest
