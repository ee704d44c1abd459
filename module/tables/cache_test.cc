// Tests of the cache getters (being written).
