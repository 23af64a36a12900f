// Placeholder: the sandbox shim is built here.
extern "C" int clientmgr_shim_placeholder() { return 0; }
