// Keeps the app library non-empty until the controller lands.
namespace quillon { int appLibraryAnchor = 0; }
