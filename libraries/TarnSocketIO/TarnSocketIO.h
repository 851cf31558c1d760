#pragma once

/// Everything the library declares.

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/CAsyncIO.h>
#include <TarnSocketIO/CConnectionAcceptor.h>
#include <TarnSocketIO/CDataReceiver.h>
#include <TarnSocketIO/CEvent.h>
#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CSignalHandler.h>
#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/CSocketThread.h>
#include <TarnSocketIO/CStaticMutex.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/ConnectionType.h>
#include <TarnSocketIO/Endian.h>
#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <TarnSocketIO/IPv4/ARPIO.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/SockAddr.h>
#include <TarnSocketIO/Version.h>
#include <TarnSocketIO/array_auto_ptr.h>
#include <TarnSocketIO/eth/MACAddress.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <TarnSocketIO/socket_structs.h>
