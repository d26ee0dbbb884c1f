// Start and end of the USB threads. g_usb_thread_lock orders the store of a
// new thread's id after pthread_create against the thread's own clearing of
// it: a thread that ends at once (no uevent socket) cannot leave its stale id
// behind.
#include "usb/usb_thread.hpp"

#include <mutex>

namespace {

std::mutex g_usb_thread_lock;  // guards the store and the clearing of the ids

}  // namespace

int amt_start_usb_thread(ThreadHandle* handle, UsbThreadProc proc) {
    std::lock_guard<std::mutex> hold(g_usb_thread_lock);
    pthread_t tid{};
    int err = pub_util_create_thread(&tid, proc, nullptr, true);
    if (err == 0) handle->store(tid);
    return err;
}

void amt_usb_thread_ending(ThreadHandle* handle) {
    std::lock_guard<std::mutex> hold(g_usb_thread_lock);
    pthread_t self = pthread_self();
    pthread_t held = handle->load();
    if (held != pthread_t{} && pthread_equal(held, self)) handle->store(pthread_t{});
}
