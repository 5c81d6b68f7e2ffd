#include "http/Background.h"

namespace QxNHttp {

boost::asio::thread_pool& DiskThread() {
    static boost::asio::thread_pool pool(1);
    return pool;
}

}  // namespace QxNHttp
