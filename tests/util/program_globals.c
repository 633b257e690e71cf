/* A program's own globals that happen to carry the names of the library's exported variables.
 * They are defined here, apart from the test, which sees the library's declarations. */
long self = 42;
const char *DEVICE_FILE_NAME = "/tvoxsp-test/the-program-s-own-device";

long program_self(void)
{
    return self;
}

const char *program_device_file_name(void)
{
    return DEVICE_FILE_NAME;
}
