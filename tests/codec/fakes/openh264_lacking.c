/* A library with OpenH264's name and none of its functions. */
int kavo_test_nothing_of_openh264;
