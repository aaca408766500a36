# about: the outside fails at what it is asked for
# expect: FAIL.*No such file
# limit: 20
outside make_random_image no/such/folder.img 1
