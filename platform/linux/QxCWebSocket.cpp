#include "QxCWebSocket.h"

QxNSmartWebApi::QxCWebSocket::~QxCWebSocket() = default;
