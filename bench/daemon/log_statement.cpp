// One log statement of the daemon against the two writes that it stands for.
#include "ADLog.h"

#include <cstdio>
#include <iostream>

#include <benchmark/benchmark.h>

namespace {

void BM_LogStatement(benchmark::State& state) {
    int count = 0;
    for (auto _ : state) {
        AD_LOG("connection type: %d, path %s", ++count, "/opt/usr/lib");
    }
}

void BM_PlainWrites(benchmark::State& state) {
    int count = 0;
    const long thread_id = syscall(SYS_gettid);
    for (auto _ : state) {
        ++count;
        __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, AD_LOG_TAG,
                     "%s: %s(%d) > \033[0m [%s:%d] [Thread Id:[%ld]] connection type: %d, path %s",
                     "log_statement.cpp", __FUNCTION__, __LINE__, __FUNCTION__, __LINE__, thread_id,
                     count, "/opt/usr/lib");
        printf("\033[0m [(Thread Id:%ld): %s(%d)] connection type: %d, path %s\n", thread_id,
               __FUNCTION__, __LINE__, count, "/opt/usr/lib");
    }
}

BENCHMARK(BM_PlainWrites);
BENCHMARK(BM_LogStatement);

}  // namespace

int main(int argc, char** argv) {
    // The statements' own output goes nowhere; the results go to standard error.
    if (!freopen("/dev/null", "w", stdout)) {
        perror("bench-log-statement: /dev/null");
        return 1;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::JSONReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
