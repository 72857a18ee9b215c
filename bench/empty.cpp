// An empty library with the same dependencies as the layer.
