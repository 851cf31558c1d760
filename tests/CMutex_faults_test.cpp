#include <TarnSocketIO/CMutex.h>
#include <gtest/gtest.h>
