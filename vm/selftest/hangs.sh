# about: a command never ends
# expect: FAIL.*not finished within
# limit: 5
sleep 1000
