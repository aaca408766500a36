# about: something is not as expected
# expect: FAIL.*one and one
# limit: 20
expect_same "one and one" 3 $((1 + 1))
