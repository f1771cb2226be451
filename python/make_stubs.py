import sys; open(sys.argv[1],"w").write("")
