// Tests of the vd getters (being written).
