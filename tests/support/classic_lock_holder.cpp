// Takes a classic fcntl write lock (as lockf or another program would) on the whole file
// PATH: classic_lock_holder PATH. Prints "held" and keeps it until standard input closes or
// it is killed; prints "busy" and exits 1 when the lock cannot be taken.
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    const int fd = open(argv[1], O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0) {
        std::printf("busy\n");
        std::fflush(stdout);
        return 1;
    }
    std::printf("held\n");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    close(fd);
    return 0;
}
