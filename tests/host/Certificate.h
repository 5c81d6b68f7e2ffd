#pragma once

#include "http/Server.h"

#include <gtest/gtest.h>
#include <cstdlib>
#include <string>

/// Makes a certificate with its key: path.pem and path.key.
inline void MakeCertificate(const std::string& path) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
        "/CN=localhost "
        "-keyout " +
        path + ".key -out " + path + ".pem 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << "openssl is needed";
}

/// Makes the server speak TLS.
inline void UseCertificate(QxNHttp::ServerOptions& options) {
    MakeCertificate("/tmp/server");
    options.certificate = "/tmp/server.pem";
    options.key = "/tmp/server.key";
}
