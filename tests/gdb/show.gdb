tbreak here<OQCException>
catch throw
run
print $_exception
frame function main
info locals
print *&text
print text.mString
continue
up
print caught
