/// What the address sanitizer is told unless the environment says otherwise. It guesses where the
/// dynamic loader keeps a library's thread-local variables from what lies before them; with this
/// system's loader the guess is wrong now and then, and the search for leaks then reads where
/// nothing is. Such memory comes from the allocator, which the search knows by itself.
extern "C" const char *__asan_default_options();

const char *__asan_default_options()
{
    return "intercept_tls_get_addr=0";
}
