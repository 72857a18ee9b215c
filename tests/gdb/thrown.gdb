catch throw
run
print $_exception
