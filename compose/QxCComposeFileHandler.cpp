#include "QxCComposeFileHandler.h"

#include <utility>

QxCComposeFileHandler::QxCComposeFileHandler(std::string composeFilesDirectory)
    : _composeFilesDirectory(std::move(composeFilesDirectory)) {}

QxCComposeFileHandler::~QxCComposeFileHandler() = default;
