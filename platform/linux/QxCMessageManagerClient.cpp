#include "QxCMessageManagerClient.h"

#include "MessageFile.h"
#include "MessageLine.h"
#include "PlatformMessages.h"
#include "PlatformOptions.h"
#include "TextFormat.h"

#include <sys/stat.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <syslog.h>

namespace {

using namespace QxNLinuxPlatform;

constexpr const char* JournalSocket = "/run/systemd/journal/socket";

int journalPriority(int severity) {
    switch (severity) {
        case QxNSeverity::Error:
            return LOG_ERR;
        case QxNSeverity::Warning:
            return LOG_WARNING;
        default:
            return LOG_INFO;
    }
}

/// @return 0, or the errno of the failure
int sendToJournal(const std::vector<QxSMessage>& messages) {
    struct stat status {};
    if (::stat(JournalSocket, &status) != 0) {
        return 0;
    }
    int error = 0;
    for (const QxSMessage& message : messages) {
        const int result = sd_journal_send(
            "PRIORITY=%d", journalPriority(message.severity), "QUOLEX_NUMBER=%d", message.number,
            "SYSLOG_IDENTIFIER=%s", message.source.c_str(), "MESSAGE=%s", message.text.c_str(), nullptr);
        if (result < 0) {
            error = -result;
        }
    }
    return error;
}

MessageFile& messageFile() {
    // Never destroyed: destructors of other static objects may still send messages.
    static MessageFile* const file =
        new MessageFile(readTextOption("Messages", "File", "/run/quolex/messages.jsonl"),
                        readNumberOption("Messages", "MaxBytes", 1024 * 1024, {4096, 1024 * 1024 * 1024}));
    return *file;
}

}  // namespace

void QxNLinuxPlatform::deliverMessages(QxCErrorListPool* errors, const std::vector<QxSMessage>& messages) {
    if (messages.empty()) {
        return;
    }
    std::vector<std::string> lines;
    lines.reserve(messages.size());
    for (const QxSMessage& message : messages) {
        lines.push_back(messageLine(message));
    }
    MessageFile& file = messageFile();
    if (const int error = file.append(lines); error != 0) {
        addError(errors, MessageNumber::MessageFileNotWritten,
                 "Cannot write messages to '" + file.path() + "': " + errorText(error));
    }
    if (const int error = sendToJournal(messages); error != 0) {
        addError(errors, MessageNumber::JournalNotWritten,
                 "Cannot send messages to the system journal: " + errorText(error));
    }
}

QxCMessageManagerClient::QxCMessageManagerClient() = default;
QxCMessageManagerClient::~QxCMessageManagerClient() = default;

QxCMessageManagerClient* QxCMessageManagerClient::getInstance() {
    static QxCMessageManagerClient* const client = new QxCMessageManagerClient;
    return client;
}

void QxCMessageManagerClient::sendMessageList(QxCErrorListPool* errors, const QxCErrorList* messages) {
    if (messages != nullptr) {
        QxNLinuxPlatform::deliverMessages(errors, messages->getMessages());
    }
}
