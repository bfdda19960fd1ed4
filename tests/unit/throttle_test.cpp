// In the making.
