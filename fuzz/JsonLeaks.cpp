// The toolkit's JSON parser forgets the lists and objects of a key that comes again in the same
// object. Its library has no names for the functions at fault, so all of it is left out, for the
// targets that parse JSON only.
//
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the sanitizer's
extern "C" const char *__lsan_default_suppressions();

// NOLINTNEXTLINE(bugprone-reserved-identifier)
const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core.so\n";
}
