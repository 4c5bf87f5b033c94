/* A library that only has the name. */
int kavo_test_nothing_of_openh264;
