#pragma once

#include "QxNJson.h"
#include "http/Message.h"

struct Ground;

/// Every condition of a working board, in the order in which a person would look.
QxNHttp::Task<QxNJson::json> CheckBoard(Ground& ground);
