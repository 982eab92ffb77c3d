// Stands for the map library in a program that was built without npm.
export const Map = null;
