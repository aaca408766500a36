# about: a counted clock does not leap while the machine outside works
# expect: PASS
# clock: counted
# limit: 60
outside make_random_image big.img 256
