// What a platform with a companion runtime of its own brings.

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/CMutex.h>

#include <cstdlib>

CMutex::CMutex(enMutexTypes) : m_mutex(), m_bValid(pthread_mutex_init(&m_mutex, nullptr) == 0) {}

CMutex::~CMutex() {
    pthread_mutex_destroy(&m_mutex);
}

void AssertFailStdErrBase::ReportWhat(const char* banner, const char*, const char*, unsigned int,
                                      const char* expression, const char*, int) {
    std::cerr << banner << " " << expression;
}

void AssertFailStdErrAbort::DoAction() {
    std::abort();
}
