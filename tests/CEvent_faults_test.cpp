#include <TarnSocketIO/CEvent.h>
#include <gtest/gtest.h>
