#pragma once

/// Everything the library declares.

#include <TarnSocketIO/CAsyncIO.h>
#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CStaticMutex.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/ConnectionType.h>
#include <TarnSocketIO/Version.h>
