# The calls of the system that fake_system.cpp answers, as options of the linker: ${faked}. The tests' model uses them, too.
set(faked accept4 bind chmod close connect epoll_create1 epoll_ctl epoll_wait fopen fwrite getsockopt listen malloc mkdir nanosleep open poll
    prctl pthread_create pthread_detach pthread_sigmask recv send sendmsg setsockopt shutdown signalfd sigprocmask sleep
    socket umask unlink)
list(TRANSFORM faked PREPEND -Wl,--wrap=)
