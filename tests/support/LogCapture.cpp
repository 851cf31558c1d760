#include "tests/support/LogCapture.h"

#include <TarnSocketIO/CUtility.h>
#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "tests/support/OutputCapture.h"

namespace TarnTest {

using TarnSocketIO::CUtility;

namespace {

constexpr std::size_t stamp_length = 24;

}  // namespace

void ResetLog() {
    CUtility::m_nLogDest = 0;
    CUtility::m_bInitialised = false;
    CUtility::m_bHaveFilter = false;
    CUtility::m_bHaveSubsystem = false;
    CUtility::m_nLogEntryIter = 0;
    std::memset(CUtility::m_szFilename, 0, sizeof CUtility::m_szFilename);
    std::memset(CUtility::m_strSubsystem, 0, sizeof CUtility::m_strSubsystem);
    std::memset(CUtility::m_strFilter, 0, sizeof CUtility::m_strFilter);
    std::memset(CUtility::m_szLogEntry, 0, sizeof CUtility::m_szLogEntry);
}

LogCapture::LogCapture() {
    ResetLog();
    const OutputCapture banner;
    CUtility::Initialise(3);
}

LogCapture::~LogCapture() {
    CUtility::SetLoggingDestination(0);
}

std::vector<std::string> LogCapture::Messages() const {
    std::vector<std::string> messages;
    pthread_mutex_lock(&CUtility::m_mutex);
    for (int i = 0; i < CUtility::LOG_ENTRIES; ++i) {
        const std::string line = CUtility::GetCyclicLogEntries((CUtility::m_nLogEntryIter + i) % CUtility::LOG_ENTRIES);
        if (line.size() >= stamp_length) {
            messages.push_back(line.substr(stamp_length));
        }
    }
    pthread_mutex_unlock(&CUtility::m_mutex);
    return messages;
}

std::size_t LogCapture::Count(const std::string& message) const {
    const std::vector<std::string> messages = Messages();
    return static_cast<std::size_t>(std::count(messages.begin(), messages.end(), message));
}

}  // namespace TarnTest
