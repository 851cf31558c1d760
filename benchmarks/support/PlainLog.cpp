#include <benchmarks/support/PlainLog.h>

#include <pthread.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace TarnBenchmark {

namespace {

constexpr std::size_t entries = 200;
constexpr std::size_t entry_size = 512;

struct Ring {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::size_t next = 0;
    char lines[entries][entry_size] = {};
};

Ring plain_ring;
Ring stamped_ring;

std::string FreshStamp() {
    const std::time_t now = std::time(nullptr);
    const std::tm* const local = std::localtime(&now);
    char stamp[entry_size];
    std::memset(stamp, 0, sizeof stamp);
    std::snprintf(stamp, sizeof stamp, "%02d/%02d/%04d - %02d:%02d:%02d - ", local->tm_mday, local->tm_mon,
                  local->tm_year + 1900, local->tm_hour, local->tm_min, local->tm_sec);
    return stamp;
}

}  // namespace

void LogNothing(const char*, ...) {}

void LogWithoutStamp(const char* format, ...) {
    va_list args;
    va_start(args, format);
    pthread_mutex_lock(&plain_ring.mutex);
    char line[entry_size];
    std::vsnprintf(line, sizeof line, format, args);
    std::memcpy(plain_ring.lines[plain_ring.next], line, sizeof line);
    plain_ring.next = (plain_ring.next + 1) % entries;
    pthread_mutex_unlock(&plain_ring.mutex);
    va_end(args);
}

void LogWithFreshStamp(const char* format, ...) {
    va_list args;
    va_start(args, format);
    pthread_mutex_lock(&stamped_ring.mutex);
    char text[entry_size];
    std::memset(text, 0, sizeof text);
    std::vsnprintf(text, sizeof text, format, args);
    const std::string line = FreshStamp() + text;
    char* const entry = stamped_ring.lines[stamped_ring.next];
    std::memset(entry, 0, entry_size);
    std::memcpy(entry, line.c_str(), std::min(line.size(), entry_size - 1));
    stamped_ring.next = (stamped_ring.next + 1) % entries;
    pthread_mutex_unlock(&stamped_ring.mutex);
    va_end(args);
}

}  // namespace TarnBenchmark
