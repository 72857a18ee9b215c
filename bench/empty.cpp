// A library with the needs of the layer and nothing in it.
