// Preloaded into zebra, this makes a kernel without MPLS accept labelled routes in zebra's eyes: each answer of the
// kernel over netlink says "no error". Zebra passes on to a forwarding plane manager only what the kernel accepted.
#include <dlfcn.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstddef>

namespace {

void say_no_error(std::byte *at, std::size_t left) {
  while (left >= sizeof(nlmsghdr)) {
    auto *const header = reinterpret_cast<nlmsghdr *>(at);
    const std::size_t length = NLMSG_ALIGN(header->nlmsg_len);
    if (header->nlmsg_type == NLMSG_ERROR && length >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
      static_cast<nlmsgerr *>(NLMSG_DATA(header))->error = 0;
    }
    if (length < sizeof(nlmsghdr) || length > left) {
      return;
    }
    at += length;
    left -= length;
  }
}

}  // namespace

extern "C" ssize_t recvmsg(int socket, msghdr *message, int flags) {
  using Receive = ssize_t (*)(int, msghdr *, int);
  static const auto receive = reinterpret_cast<Receive>(dlsym(RTLD_NEXT, "recvmsg"));
  const ssize_t count = receive(socket, message, flags);
  const auto *const sender = static_cast<const sockaddr *>(message->msg_name);
  if (count > 0 && sender != nullptr && sender->sa_family == AF_NETLINK && message->msg_iovlen == 1) {
    say_no_error(static_cast<std::byte *>(message->msg_iov[0].iov_base), static_cast<std::size_t>(count));
  }
  return count;
}
