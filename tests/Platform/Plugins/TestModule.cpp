// A plug-in module for the library loader's tests, built twice: libFsScanTestModule.so with every
// export, and libFsScanTestModuleLacking.so without FsScanTestModuleNextValue (built with
// FSSCAN_TEST_MODULE_LACKS_NEXT_VALUE). Plain C exports and plain data only, so that the module
// can really be unloaded (C++ inline statics would pin it in memory).

extern "C" {

__attribute__((visibility("default"))) int FsScanTestModuleAnswer() { return 42; }

#ifndef FSSCAN_TEST_MODULE_LACKS_NEXT_VALUE
// Module state: starts from zero each time the module is mapped, so a test can tell whether
// an unload really dropped the module.
static int s_iCounter = 0;

__attribute__((visibility("default"))) int FsScanTestModuleNextValue() { return ++s_iCounter; }
#endif

}  // extern "C"
