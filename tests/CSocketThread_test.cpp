#include <TarnSocketIO/CSocketThread.h>
#include <gtest/gtest.h>
