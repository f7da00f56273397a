VERSION = "0.9.0"  # that of the programs, see CMakeLists.txt
