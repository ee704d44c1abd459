// components table getters (being written).
