catch throw
run
python symbol = gdb.execute("info symbol $_probe_arg1", to_string=True).partition(" in ")[0]
python print("$1 = %d %s" % (gdb.parse_and_eval("*(int*)($_probe_arg0 + 272)"), symbol))
printf "\"%s\"\n", $_probe_arg0 + 16
