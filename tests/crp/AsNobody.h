#pragma once

#include <unistd.h>
#include <cstdlib>

/// For as long as this lives, permissions count for this process.
class AsNobody {
public:
    AsNobody() { Become(65534); }
    AsNobody(const AsNobody&) = delete;
    AsNobody& operator=(const AsNobody&) = delete;
    ~AsNobody() { Become(0); }

private:
    static void Become(uid_t user) {
        if (seteuid(user) != 0) {
            std::abort();
        }
    }
};
