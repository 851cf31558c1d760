#include <TarnSocketIO/CStaticMutex.h>

namespace TarnSocketIO {

CStaticMutex::CStaticMutex() {
    pthread_mutex_init(&m_mutex, nullptr);
}

CStaticMutex::~CStaticMutex() {
    pthread_mutex_destroy(&m_mutex);
}

void CStaticMutex::Lock() {
    pthread_mutex_lock(&m_mutex);
}

void CStaticMutex::Unlock() {
    pthread_mutex_unlock(&m_mutex);
}

}  // namespace TarnSocketIO
