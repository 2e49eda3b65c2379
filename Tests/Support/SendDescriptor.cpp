// Opens a file and sends its descriptor over standard output, as Apple's authopen does:
// send-descriptor PATH

#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int count, char** words)
{
    const int descriptor = count == 2 ? ::open(words[1], O_RDONLY) : -1;
    if (descriptor < 0)
        return 1;
    char byte = 0;
    iovec bytes { &byte, 1 };
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] {};
    msghdr message {};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    auto* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    return ::sendmsg(STDOUT_FILENO, &message, 0) == 1 ? 0 : 1;
}
