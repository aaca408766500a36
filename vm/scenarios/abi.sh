# about: the tests of the module's binary interface, cross-built, on the ARM kernel
"$ARM64_DIR/tests/abi_test"
