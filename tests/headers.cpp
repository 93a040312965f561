// Nothing: what counts are the headers that are compiled with it.
