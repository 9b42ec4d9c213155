/* A storage that calls a function which nobody has. */
extern "C" void tirval_nobody_has_this();

extern "C" __attribute__((visibility("default"))) void tirval_gridftp_server_unresolved_module()
{
    tirval_nobody_has_this();
}
