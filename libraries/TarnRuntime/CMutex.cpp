#include <TarnSocketIO/CMutex.h>

namespace {

int PosixKind(CMutex::enMutexTypes type) {
    switch (type) {
        case CMutex::enRecursive:
            return PTHREAD_MUTEX_RECURSIVE;
        case CMutex::enErrorCheck:
            return PTHREAD_MUTEX_ERRORCHECK;
        case CMutex::enNormal:
            break;
    }
    return PTHREAD_MUTEX_NORMAL;
}

}  // namespace

CMutex::CMutex(enMutexTypes type) : m_mutex(), m_bValid(false) {
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) {
        return;
    }
    m_bValid =
        pthread_mutexattr_settype(&attributes, PosixKind(type)) == 0 && pthread_mutex_init(&m_mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
}

CMutex::~CMutex() {
    if (m_bValid) {
        pthread_mutex_destroy(&m_mutex);
    }
}
