package android.kus;
parcelable DeviceInfo {
  @utf8InCpp String deviceName;
  int deviceId = 0;
  int deviceClass = 0;
  int[] interfaceClasses;
  int vendorId = 0;
  int productId = 0;
  int status = 0;
  int deviceType = 0;
  @utf8InCpp String reason;
  int category = 0;
  @utf8InCpp String categoryPath;
}
