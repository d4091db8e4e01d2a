/* The module's own translation unit; all of its code comes from the plug-in's libraries. */
