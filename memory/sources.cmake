# Sources of this family.
