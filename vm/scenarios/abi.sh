# about: the cross-built tests of the module's binary interface and of the library, on ARM
for name in abi_test library_test; do
    test=$ARM64_DIR/tests/$name
    [ -x "$test" ] || fail "not built: $test"
    "$test" | tee "$LOG_DIR/$name.log"
    # A pipe has its last command's status; the last line counts the tests that passed.
    tail -n1 "$LOG_DIR/$name.log" | grep -q 'PASSED.* [1-9][0-9]* test' || fail "$name has not passed"
done
