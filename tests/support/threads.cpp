#include "threads.h"

#include <dirent.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

std::string readThreadName(const std::string& tid) {
    std::string path = "/proc/self/task/" + tid + "/comm";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return "";
    char buf[64] = {0};
    if (fgets(buf, sizeof buf, f) == nullptr) buf[0] = '\0';
    fclose(f);
    std::string s(buf);
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

}  // namespace

std::vector<ThreadEntry> processThreads() {
    std::string self = std::to_string(getpid());
    std::vector<ThreadEntry> out{{self, readThreadName(self)}};
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return out;
    while (dirent* ent = readdir(d)) {
        std::string tid = ent->d_name;
        if (tid == "." || tid == ".." || tid == self) continue;
        std::string name = readThreadName(tid);
        if (name.rfind("qemu", 0) == 0) continue;
        out.push_back({tid, name});
    }
    closedir(d);
    return out;
}

int threadCount() { return static_cast<int>(processThreads().size()); }

int threadsNamed(const std::string& name) {
    int n = 0;
    for (const ThreadEntry& t : processThreads()) n += t.name == name ? 1 : 0;
    return n;
}

bool threadCountSettlesAt(int n, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (threadCount() != n) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int baselineThreadCount() {
    long joined = 0;
    std::thread([&] { joined = static_cast<long>(syscall(SYS_gettid)); }).join();
    std::string path = "/proc/self/task/" + std::to_string(joined);
    for (int i = 0; i < 10000 && access(path.c_str(), F_OK) == 0; ++i) usleep(1000);
    return threadCount();
}
