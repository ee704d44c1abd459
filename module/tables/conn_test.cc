// Tests of the conn getters (being written).
