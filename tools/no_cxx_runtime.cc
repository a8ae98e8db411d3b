// What devsim takes from the C++ runtime, for a C library without one to
// link: on musl there is none here, since the only libstdc++ is built for
// glibc. devsim is then built like the daemon, without exceptions, and its
// strings and vectors need of the runtime only memory and a way to fail:
// operator new and delete over malloc, and a message and abort() where the
// library would throw (as an exception that nobody catches ends the program).
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

// The runtime holds the code of the string of chars, which the header only
// declares: it is made here instead.
template class std::basic_string<char>;

namespace {

[[noreturn]] void vfail(const char *fmt, va_list ap)
{
    fputs("devsim: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    abort();
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfail(fmt, ap);
}

}  // namespace

void *operator new(std::size_t size)
{
    void *p = malloc(size ? size : 1);
    if (!p)
        fail("out of memory");
    return p;
}

void operator delete(void *p) noexcept
{
    free(p);
}

void operator delete(void *p, std::size_t) noexcept
{
    free(p);
}

namespace std {

void __throw_bad_alloc()
{
    fail("out of memory");
}

void __throw_bad_array_new_length()
{
    fail("bad array length");
}

void __throw_logic_error(const char *what)
{
    fail("%s", what);
}

void __throw_length_error(const char *what)
{
    fail("%s", what);
}

void __throw_invalid_argument(const char *what)
{
    fail("%s", what);
}

void __throw_out_of_range(const char *what)
{
    fail("%s", what);
}

void __throw_out_of_range_fmt(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfail(fmt, ap);
}

}  // namespace std
