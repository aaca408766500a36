# about: a command never ends and the script does not react to being told so
# expect: FAIL.*not finished within
# limit: 5
trap '' TERM
sleep 1000
