// cache table getters (being written).
