#pragma once

/// The library's version; the build takes it from here, so it is stated nowhere else.
#define TARN_SOCKETIO_VERSION_MAJOR 1
#define TARN_SOCKETIO_VERSION_MINOR 0
#define TARN_SOCKETIO_VERSION_PATCH 0

#define TARN_SOCKETIO_STRINGISE_(x) #x
#define TARN_SOCKETIO_STRINGISE(x) TARN_SOCKETIO_STRINGISE_(x)

/// The version as text, such as "1.0.0".
#define TARN_SOCKETIO_VERSION                            \
    TARN_SOCKETIO_STRINGISE(TARN_SOCKETIO_VERSION_MAJOR) \
    "." TARN_SOCKETIO_STRINGISE(TARN_SOCKETIO_VERSION_MINOR) "." TARN_SOCKETIO_STRINGISE(TARN_SOCKETIO_VERSION_PATCH)
