// What a platform with a companion runtime of its own brings.

#include <TarnSocketIO/CMutex.h>

CMutex::CMutex(enMutexTypes) : m_mutex(), m_bValid(pthread_mutex_init(&m_mutex, nullptr) == 0) {}

CMutex::~CMutex() {
    pthread_mutex_destroy(&m_mutex);
}
