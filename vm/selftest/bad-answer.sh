# about: the outside cannot do what it is asked for
# expect: FAIL.*no such action
# limit: 20
outside no_such_action
