// One log statement of the daemon, compared with the two writes that it makes.
#include "ADLog.h"

#include <cstdio>
#include <iostream>

#include <benchmark/benchmark.h>

namespace {

void log_statement(benchmark::State& state) {
    int count = 0;
    while (state.KeepRunning()) {
        ++count;
        AD_LOG("connection type: %d, path %s", count, "/opt/usr/lib");
    }
}

void plain_writes(benchmark::State& state) {
    int count = 0;
    const long thread_id = syscall(SYS_gettid);
    while (state.KeepRunning()) {
        ++count;
        __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, AD_LOG_TAG,
                     "%s: %s(%d) > \033[0m [%s:%d] [Thread Id:[%ld]] connection type: %d, path %s",
                     "log_statement.cpp", __FUNCTION__, __LINE__, __FUNCTION__, __LINE__, thread_id,
                     count, "/opt/usr/lib");
        printf("\033[0m [(Thread Id:%ld): %s(%d)] connection type: %d, path %s\n", thread_id,
               __FUNCTION__, __LINE__, count, "/opt/usr/lib");
    }
}

BENCHMARK(plain_writes);
BENCHMARK(log_statement);

}  // namespace

int main(int argc, char** argv) {
    // Discard the statements' output; the results go to standard error.
    if (!freopen("/dev/null", "w", stdout)) {
        perror("bench-log-statement: failed to open /dev/null");
        return 1;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::JSONReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
