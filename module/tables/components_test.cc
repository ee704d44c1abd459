// Tests of the components getters (being written).
