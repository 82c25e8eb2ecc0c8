// Empty: it stands for the headers that are compiled with it and shared by all test programs.
