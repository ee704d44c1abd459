// vd table getters (being written).
