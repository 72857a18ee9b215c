# Takes out of a log, or of what an example says, what differs from run to run and from host to host.
s/^[-0-9]{10}T[0-9:.]{15}Z [0-9]+ [0-9]+ -/TIME PROCESS THREAD -/
s/^(TIME [^(]*\([^):]*):[0-9]+\)/\1:LINE)/
s/^release: .+/release: NAME/
s/^(no address|address): .+/ADDRESS/
s/(Named Pipe: )[0-9]+/\1NUMBER/
